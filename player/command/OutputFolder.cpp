// SPDX-License-Identifier: Apache-2.0
#include "player/command/OutputFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "player/base/Errors.h"
#include "player/command/OutputFile.h"

namespace korvane::player {
namespace {

constexpr mode_t kFolderMode = 0777;

/// Creates what is missing of a path; names in `created` what it created, the deepest first.
/// @return false with `errno` if a part cannot be created
bool makeFolders(const std::string& path, std::vector<std::string>* created) {
    for (size_t end = path.find('/', 1); true; end = path.find('/', end + 1)) {
        const std::string part = path.substr(0, end);
        if (mkdir(part.c_str(), kFolderMode) == 0) {
            created->insert(created->begin(), part);
        } else if (errno != EEXIST) {
            return false;
        }
        if (end == std::string::npos) {
            return true;
        }
    }
}

}  // namespace

OutputFolder::OutputFolder(const std::string& option, const std::string& path) {
    if (path.empty()) {
        return;
    }
    const bool made = makeFolders(path, &mCreated);
    mHeld = tv::UniqueFd(made ? open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
    if (mHeld.get() < 0 || access(path.c_str(), W_OK | X_OK) != 0) {
        throw UsageError(option + " " + path + ": " + std::generic_category().message(errno) +
                         "; give a folder that can be written");
    }
    if (!lockForThisRun(mHeld.get())) {
        throw UsageError(option + " " + path +
                         ": another run is writing into it; wait until that has ended, or give "
                         "another folder");
    }
}

OutputFolder::~OutputFolder() {
    for (const auto& folder : mCreated) {
        rmdir(folder.c_str());
    }
}

std::string inFolder(const std::string& folder, const std::string& file) {
    return folder.empty() ? "" : folder + (folder.back() == '/' ? "" : "/") + file;
}

}  // namespace korvane::player
