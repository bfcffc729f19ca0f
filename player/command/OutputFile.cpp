// SPDX-License-Identifier: Apache-2.0
#include "player/command/OutputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "player/base/Errors.h"

namespace korvane::player {
namespace {

constexpr mode_t kNewFileMode = 0666;

/// Pipes and devices take what several write; a file would be written over.
bool sameFile(const struct stat& left, const struct stat& right) {
    return S_ISREG(left.st_mode) && left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

std::string reasonNow() {
    return std::generic_category().message(errno) + "; give a file that can be written";
}

}  // namespace

OutputFile::OutputFile(std::string option, std::string path)
    : mOption(std::move(option)), mPath(std::move(path)) {
    if (mPath.empty()) {
        return;
    }
    mFd = tv::UniqueFd(open(mPath.c_str(), O_WRONLY | O_CLOEXEC));
    if (mFd.get() < 0 && errno == ENOENT) {
        mFd = tv::UniqueFd(open(mPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kNewFileMode));
        mMade = mFd.get() >= 0;
    }
    if (mFd.get() < 0 || fstat(mFd.get(), &mStatus) != 0) {
        refuse(reasonNow());
    }
}

OutputFile::~OutputFile() {
    if (mMade) {
        unlink(mPath.c_str());
    }
}

void OutputFile::refuse(const std::string& why) const {
    throw UsageError(mOption + " " + mPath + ": " + why);
}

void OutputFile::release() {
    mMade = false;
    mFd.reset();
}

void OutputFile::begin() {
    if (mPath.empty()) {
        return;
    }
    mStream.open(mPath);
    if (!mStream) {
        refuse(reasonNow());
    }
    release();
}

std::string OutputFile::finish() {
    if (mPath.empty()) {
        return {};
    }
    mStream.close();
    return mStream ? std::string()
                   : mOption + " " + mPath +
                         ": could not be written whole; free some space and play again";
}

void checkApart(const std::string& input, const std::vector<const OutputFile*>& outputs) {
    struct stat film {};
    const bool haveFilm = stat(input.c_str(), &film) == 0;
    struct stat screen {};
    const bool haveScreen = fstat(STDOUT_FILENO, &screen) == 0;
    for (size_t i = 0; i < outputs.size(); ++i) {
        const OutputFile& output = *outputs[i];
        if (haveFilm && sameFile(output.mStatus, film)) {
            output.refuse("is the film that is to be played; give another file");
        }
        if (haveScreen && sameFile(output.mStatus, screen)) {
            output.refuse("standard output, with the summary, goes there; give another file");
        }
        for (size_t j = 0; j < i; ++j) {
            if (sameFile(output.mStatus, outputs[j]->mStatus)) {
                output.refuse("is the file of " + outputs[j]->mOption + ", too; give another one");
            }
        }
    }
}

}  // namespace korvane::player
