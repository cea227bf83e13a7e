// Writing a whole file through Qt: the bytes go to a partial name (see
// core/platform/partial_file.h), are flushed and synced, and the file on
// disk is checked to hold every byte before it takes the real name. A full
// disk that took none or part of the bytes is a failure with its cause,
// never a "Wrote" over an empty file, and the old file stays.
#pragma once

#include <QIODevice>
#include <filesystem>
#include <functional>
#include <string>

namespace orvel::app {

// `write` fills the device and returns false when it could not (its own
// words then come from the device's errorString). Returns an empty text on
// success, else why nothing was written.
std::string writeWholeFile(const std::filesystem::path& target,
                           const std::function<bool(QIODevice&)>& write);

}  // namespace orvel::app
