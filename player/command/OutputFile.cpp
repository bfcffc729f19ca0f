// SPDX-License-Identifier: Apache-2.0
#include "player/command/OutputFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "player/base/Errors.h"

namespace korvane::player {
namespace {

constexpr mode_t kNewFileMode = 0666;

/// Whether both are one regular file: its writers would overwrite each other.
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
        mCreated = mFd.get() >= 0;
    }
    if (mFd.get() < 0 || fstat(mFd.get(), &mStatus) != 0) {
        refuse(reasonNow());
    }
}

OutputFile::~OutputFile() {
    if (mCreated) {
        unlink(mPath.c_str());
    }
}

void OutputFile::refuse(const std::string& why) const {
    throw UsageError(mOption + " " + mPath + ": " + why);
}

void OutputFile::keep() {
    mCreated = false;
    // Who reads a pipe waits until its last writer has closed it.
    if (!S_ISREG(mStatus.st_mode)) {
        mFd.reset();
    }
}

void OutputFile::begin() {
    if (mPath.empty()) {
        return;
    }
    mStream.open(mPath);
    if (!mStream) {
        refuse(reasonNow());
    }
    keep();
}

std::string OutputFile::finish() {
    if (mPath.empty()) {
        return {};
    }
    mStream.close();
    return mStream ? ""
                   : mOption + " " + mPath +
                         ": could not be written whole; free some space and play again";
}

void OutputFile::checkIsNot(const std::string& input,
                            const std::vector<const OutputFile*>& others) const {
    struct stat other {};
    if (stat(input.c_str(), &other) == 0 && sameFile(mStatus, other)) {
        refuse("is the film that is to be played; give another file");
    }
    if (fstat(STDOUT_FILENO, &other) == 0 && sameFile(mStatus, other)) {
        refuse("is standard output, which gets the report; give another file");
    }
    for (const OutputFile* output : others) {
        if (sameFile(mStatus, output->mStatus)) {
            refuse("is also the file of " + output->mOption + "; give another file");
        }
    }
}

void OutputFile::lock() const {
    if (S_ISREG(mStatus.st_mode) && !lockForThisRun(mFd.get())) {
        refuse("another run is writing it; wait until that has ended, or give another file");
    }
}

void claim(const std::string& input, const std::vector<const OutputFile*>& outputs) {
    for (auto output = outputs.begin(); output != outputs.end(); ++output) {
        (*output)->checkIsNot(input, {outputs.begin(), output});
    }
    for (const OutputFile* output : outputs) {
        output->lock();
    }
}

bool lockForThisRun(int fd) {
    // A file system without locks refuses nothing.
    return flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

}  // namespace korvane::player
