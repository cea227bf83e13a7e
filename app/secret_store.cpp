#include "app/secret_store.h"

#include <qt6keychain/keychain.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QString>

namespace orvel::app {
namespace {

constexpr auto kService = "Orvel";

QString toQ(std::string_view s) {
  return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size()));
}

// Jobs report through signals only, and the callers here want an answer now.
void runJob(QKeychain::Job& job) {
  bool finished = false;
  QEventLoop loop;
  QObject::connect(&job, &QKeychain::Job::finished, &loop, [&] {
    finished = true;
    loop.quit();
  });
  job.setAutoDelete(false);
  job.start();
  if (!finished) loop.exec();
}

std::string failure(const QKeychain::Job& job) {
  const std::string why = job.errorString().toStdString();
  switch (job.error()) {
    case QKeychain::NoError:
    case QKeychain::EntryNotFound:
      return {};
    case QKeychain::AccessDenied:
    case QKeychain::AccessDeniedByUser:
      return "The keychain refused access: " + why;
    case QKeychain::CouldNotDeleteEntry:
      return "The keychain could not delete the key: " + why;
    case QKeychain::NoBackendAvailable:
    case QKeychain::NotImplemented:
    case QKeychain::OtherError:
      break;
  }
  // On Linux a missing Secret Service shows up as OtherError as often as
  // NoBackendAvailable; both mean the same to the user.
  return "No keychain is available: " + why;
}

std::string noApplication() {
  return "No keychain is available: the keychain needs a running application";
}

}  // namespace

SecretRead KeychainStore::read(std::string_view name) {
  if (QCoreApplication::instance() == nullptr) return {std::nullopt, noApplication()};
  QKeychain::ReadPasswordJob job(kService);
  job.setKey(toQ(name));
  runJob(job);
  if (job.error() == QKeychain::NoError) return {job.textData().toStdString(), {}};
  return {std::nullopt, failure(job)};
}

std::string KeychainStore::write(std::string_view name, std::string_view value) {
  if (QCoreApplication::instance() == nullptr) return noApplication();
  QKeychain::WritePasswordJob job(kService);
  job.setKey(toQ(name));
  job.setTextData(toQ(value));
  runJob(job);
  return failure(job);
}

std::string KeychainStore::remove(std::string_view name) {
  if (QCoreApplication::instance() == nullptr) return noApplication();
  QKeychain::DeletePasswordJob job(kService);
  job.setKey(toQ(name));
  runJob(job);
  return failure(job);
}

}  // namespace orvel::app
