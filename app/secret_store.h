// Where secrets such as the assistant's API key live: an interface, so tests
// hand the assistant an in-memory store, and the system keychain behind it in
// the program (the macOS Keychain, the Secret Service on Linux, through
// QtKeychain). Secrets never go to the settings file or the log.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvel::app {

struct SecretRead {
  std::optional<std::string> value;  // none when nothing is stored or on error
  std::string error;                 // empty unless the store itself failed
};

class SecretStore {
 public:
  virtual ~SecretStore() = default;
  virtual SecretRead read(std::string_view name) = 0;
  // Each returns why it failed; empty when it worked. Removing a secret that
  // is not there works.
  virtual std::string write(std::string_view name, std::string_view value) = 0;
  virtual std::string remove(std::string_view name) = 0;
};

// The system keychain, under the service "Orvel". Needs a QCoreApplication
// and waits for each keychain job in a local event loop. Where no keychain
// runs (a headless Linux box without a Secret Service) every call fails with
// "No keychain is available: …".
class KeychainStore : public SecretStore {
 public:
  SecretRead read(std::string_view name) override;
  std::string write(std::string_view name, std::string_view value) override;
  std::string remove(std::string_view name) override;
};

}  // namespace orvel::app
