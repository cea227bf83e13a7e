#include "app/file_output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <cstring>

#include "core/platform/partial_file.h"

namespace orvel::app {

std::string writeWholeFile(const std::filesystem::path& target,
                           const std::function<bool(QIODevice&)>& write) {
  return writeWhole(target, [&](const std::filesystem::path& partial) -> std::string {
    QFile file(QFile::decodeName(partial.c_str()));
    if (!file.open(QIODevice::WriteOnly)) return file.errorString().toStdString();
    const auto reason = [&file](std::string fallback) {
      // QFile says "Unknown error" when it has no cause of its own.
      return file.error() != QFileDevice::NoError ? file.errorString().toStdString()
                                                  : std::move(fallback);
    };
    if (!write(file)) return reason("the data could not be written");
    if (!file.flush()) return reason("the data could not be written");
    // Some file systems only say at sync time that the bytes did not fit.
    if (::fsync(file.handle()) != 0) return std::strerror(errno);
    const qint64 written = file.pos();
    file.close();
    std::error_code ec;
    const auto onDisk = std::filesystem::file_size(partial, ec);
    if (ec) return ec.message();
    if (static_cast<qint64>(onDisk) != written)
      return fmt::format("only {} of {} bytes reached the disk (is it full?)", onDisk, written);
    return {};
  });
}

}  // namespace orvel::app
