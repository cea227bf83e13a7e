// orvel config: the preferences the window also uses, from the command line.
#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>

#include "app/assistant.h"
#include "app/settings.h"
#include "core/text/split.h"
#include "tools/cli/commands.h"

namespace orvel::cli {
namespace {

namespace fs = std::filesystem;
using app::Settings;

std::string boolText(bool b) {
  return b ? "true" : "false";
}

bool parseBool(const std::string& key, const std::string& text) {
  for (const char* yes : {"true", "on", "yes", "1"})
    if (text == yes) return true;
  for (const char* no : {"false", "off", "no", "0"})
    if (text == no) return false;
  throw CliError(kBadUsage, fmt::format("{} takes true or false, not \"{}\"", key, text));
}

double parseNumber(const std::string& key, const std::string& text, double low, double high) {
  size_t used = 0;
  double v = 0;
  try {
    v = std::stod(text, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used != text.size() || v < low || v > high)
    throw CliError(kBadUsage, fmt::format("{} takes a number from {} to {}, not \"{}\"", key, low,
                                          high, text));
  return v;
}

// The preferences offered here, each with how it reads and how it is set.
struct Pref {
  std::string_view key;
  std::string_view help;
  std::function<std::string(const Settings&)> get;
  std::function<void(Settings&, const std::string&)> set;
};

const std::vector<Pref>& prefs() {
  static const std::vector<Pref> all{
      {app::keys::kMediaRoot, "folder that imports copy into and the watcher watches",
       [](const Settings& s) { return s.mediaRoot().value_or("").string(); },
       [](Settings& s, const std::string& v) {
         std::error_code ec;
         const fs::path root = fs::absolute(v, ec).lexically_normal();
         if (ec || !fs::is_directory(root, ec)) throw CliError(kFailed, "no such folder: " + v);
         s.setMediaRoot(root);
       }},
      {app::keys::kWatchMusicFolder, "import new files that appear in the media root",
       [](const Settings& s) { return boolText(s.watchMusicFolder()); },
       [](Settings& s, const std::string& v) {
         s.setWatchMusicFolder(parseBool("watchMusicFolder", v));
       }},
      {app::keys::kKeyNotation, "how keys are shown: standard, camelot, openKey or both",
       [](const Settings& s) { return s.keyNotation(); },
       [](Settings& s, const std::string& v) {
         for (auto known : Settings::kKeyNotations)
           if (v == known) return s.setKeyNotation(v);
         throw CliError(kBadUsage,
                        "keyNotation takes standard, camelot, openKey or both, not \"" + v + "\"");
       }},
      {app::keys::kBpmCeiling, "tempo above which analysis halves a detected BPM (0: none)",
       [](const Settings& s) { return fmt::format("{}", s.bpmCeiling()); },
       [](Settings& s, const std::string& v) {
         s.setBpmCeiling(parseNumber("bpmCeiling", v, 0, 999));
       }},
      {app::keys::kAiBaseURL, "address the assistant sends its questions to",
       // A password in the address is never shown.
       [](const Settings& s) { return app::withoutCredentials(s.aiBaseURL()); },
       [](Settings& s, const std::string& v) {
         if (!v.starts_with("https://") && !v.starts_with("http://"))
           throw CliError(kBadUsage, "aiBaseURL takes an http:// or https:// address, not \"" +
                                         app::withoutCredentials(v) + "\"");
         s.setAiBaseURL(v);
       }},
      {app::keys::kPlayHistoryLimit, "plays kept in the play history",
       [](const Settings& s) { return std::to_string(s.playHistoryLimit()); },
       [](Settings& s, const std::string& v) {
         s.setPlayHistoryLimit(static_cast<int>(parseNumber("playHistoryLimit", v, 1, 1e6)));
       }},
      {app::keys::kSoftMuteLevel, "percent of full volume that soft mute drops to",
       [](const Settings& s) { return fmt::format("{}", s.softMuteLevel()); },
       [](Settings& s, const std::string& v) {
         s.setSoftMuteLevel(parseNumber("softMuteLevel", v, 0, 100));
       }},
  };
  return all;
}

const Pref& prefFor(const std::string& key) {
  for (const auto& p : prefs())
    if (p.key == key) return p;
  std::string known;
  for (const auto& p : prefs()) known += (known.empty() ? "" : ", ") + std::string(p.key);
  throw CliError(kBadUsage, fmt::format("no setting named \"{}\" (settings: {})", key, known));
}

// The assistant's key lives in the keychain, not among the settings; it is
// read from standard input so that it stays out of the shell's history.
constexpr std::string_view kAiKeyOption = "ai-key";

void storeAiKey(Context& ctx) {
  if (isatty(STDIN_FILENO)) ctx.err << "Paste the Anthropic API key, then press Enter: ";
  std::string line;
  std::getline(std::cin, line);
  const std::string key(trim(line));
  if (key.empty()) throw CliError(kBadUsage, "no key on standard input");
  ensureQtApplication();
  app::KeychainStore keychain;
  if (const std::string why = keychain.write(app::kAiKeyName, key); !why.empty())
    throw CliError(kFailed, why + " (ORVEL_AI_KEY in the environment works without one)");
  ctx.out << "ai-key stored in the keychain\n";
}

void removeAiKey(Context& ctx) {
  ensureQtApplication();
  app::KeychainStore keychain;
  if (const std::string why = keychain.remove(app::kAiKeyName); !why.empty())
    throw CliError(kFailed, why);
  ctx.out << "ai-key removed from the keychain\n";
}

}  // namespace

void addConfigCommands(CLI::App& app, Context& ctx) {
  auto* cmd = app.add_subcommand(
      "config",
      "Show or change settings: orvel config [KEY [VALUE]] | orvel config --unset KEY | "
      "orvel config ai-key < KEYFILE");
  struct Args {
    std::string key, value, unset;
    bool json = false;
  };
  auto args = std::make_shared<Args>();
  cmd->add_option("KEY", args->key, "The setting to show or change");
  auto* valueOpt = cmd->add_option("VALUE", args->value, "Its new value");
  cmd->add_option("--unset", args->unset, "Return a setting to its default")->type_name("KEY");
  cmd->add_flag("--json", args->json, "All settings as one JSON object");
  cmd->callback([&ctx, args, valueOpt] {
    if (args->unset == kAiKeyOption) return removeAiKey(ctx);
    if (args->key == kAiKeyOption) {
      if (valueOpt->count() != 0)
        throw CliError(kBadUsage,
                       "give the key on standard input, not on the command line, where the shell "
                       "history would keep it");
      return storeAiKey(ctx);
    }
    Settings settings;
    if (!args->unset.empty()) {
      const Pref& p = prefFor(args->unset);
      settings.remove(p.key);
      ctx.out << p.key << " = " << p.get(settings) << "\n";
      return;
    }
    if (args->key.empty()) {
      nlohmann::json j = nlohmann::json::object();
      for (const auto& p : prefs()) {
        if (args->json)
          j[std::string(p.key)] = p.get(settings);
        else
          ctx.out << fmt::format("{:<18} {:<32} {}\n", p.key, p.get(settings), p.help);
      }
      if (args->json) ctx.out << jsonText(j, 2) << "\n";
      return;
    }
    const Pref& p = prefFor(args->key);
    if (valueOpt->count() == 0) {
      ctx.out << p.get(settings) << "\n";
      return;
    }
    p.set(settings, args->value);
    ctx.out << p.key << " = " << p.get(settings) << "\n";
  });
}

}  // namespace orvel::cli
