// SPDX-License-Identifier: Apache-2.0
#include "tv/TraceFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <system_error>
#include <utility>

#include "tv/clock/VirtualTime.h"

namespace korvane::tv {
namespace {

/// Slices' tracks are drawn as threads with ids above any that Linux gives out.
constexpr int32_t kFirstTrackThread = 1 << 30;

/// A name as the inside of a JSON string; what is no printable ASCII becomes '?'.
std::string escaped(const char* name) {
    std::string text;
    for (; *name != '\0'; ++name) {
        if (*name == '"' || *name == '\\') {
            text += '\\';
            text += *name;
        } else {
            text += *name >= 0x20 && *name < 0x7f ? *name : '?';
        }
    }
    return text;
}

std::string threadName(int32_t thread) {
    if (VirtualTime::active()) {
        return VirtualTime::threadName(thread);
    }
    std::ifstream comm("/proc/self/task/" + std::to_string(thread) + "/comm");
    std::string name;
    return std::getline(comm, name) ? name : "thread " + std::to_string(thread);
}

/// Virtual runs are alike to the byte, so the process's number is no part of them.
int processNumber() {
    return VirtualTime::active() ? 1 : getpid();
}

/// What an event has besides its name, thread and time.
std::string details(const TraceEvent& event) {
    const std::string value = std::to_string(event.value);
    switch (event.kind) {
        case TraceEvent::Kind::Begin:
            return R"("ph":"B")";
        case TraceEvent::Kind::End:
            return R"("ph":"E")";
        case TraceEvent::Kind::Counter:
            return R"("ph":"C","args":{"value":)" + value + "}";
        case TraceEvent::Kind::AsyncBegin:
            return R"("ph":"b","cat":"async","id":)" + value;
        case TraceEvent::Kind::AsyncEnd:
            return R"("ph":"e","cat":"async","id":)" + value;
        case TraceEvent::Kind::Slice: {
            char length[48];
            std::snprintf(length, sizeof(length), "%" PRId64 ".%03d", event.value / 1000,
                          static_cast<int>(event.value % 1000));
            return std::string(R"("ph":"X","dur":)") + length;
        }
    }
    return {};
}

}  // namespace

TraceFile::~TraceFile() {
    if (mFd >= 0) {
        close(mFd);
    }
}

void TraceFile::open(const std::string& path) {
    mPath = path;
    mFd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (mFd < 0) {
        fail("cannot create trace file", errno);
        return;
    }
    mPending = "[\n";
}

void TraceFile::add(const TraceEvent& event) {
    if (mFd < 0) {
        ++mLost;
        return;
    }
    const bool slice = event.kind == TraceEvent::Kind::Slice;
    const int32_t thread = slice ? kFirstTrackThread + event.thread : event.thread;
    if (mNamed.count(thread) == 0) {
        nameThread(thread, threadName(thread));
    }
    char place[96];
    std::snprintf(place, sizeof(place), R"(,"pid":%d,"tid":%d,"ts":%)" PRId64 ".%03d,",
                  processNumber(), thread, event.timeNs / 1000,
                  static_cast<int>(event.timeNs % 1000));
    addLine(R"({"name":")" + escaped(event.name.data()) + '"' + place + details(event) + "}");
    ++mPendingEvents;
}

void TraceFile::addTrack(int32_t track, const std::string& name) {
    nameThread(kFirstTrackThread + track, name);
}

void TraceFile::nameThread(int32_t thread, const std::string& name) {
    mNamed.insert(thread);
    addLine(R"({"name":"thread_name","ph":"M","pid":)" + std::to_string(processNumber()) +
            R"(,"tid":)" + std::to_string(thread) + R"(,"args":{"name":")" + escaped(name.c_str()) +
            "\"}}");
}

void TraceFile::addLine(const std::string& line) {
    if (mFd < 0) {
        return;
    }
    mPending += mFirstLine ? "" : ",\n";
    mPending += line;
    mFirstLine = false;
}

void TraceFile::write() {
    size_t done = 0;
    while (done < mPending.size()) {
        const ssize_t count = ::write(mFd, mPending.data() + done, mPending.size() - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            fail("cannot write", errno);
            return;
        }
        done += static_cast<size_t>(count);
    }
    mFileBytes += static_cast<int64_t>(done);
    mWritten += mPendingEvents;
    mPending.clear();
    mPendingEvents = 0;
}

void TraceFile::finish() {
    if (mFd < 0) {
        return;
    }
    mPending += "\n]\n";
    write();
    if (mFd >= 0 && close(std::exchange(mFd, -1)) != 0) {
        fail("cannot close trace file", errno);
    }
}

void TraceFile::fail(const char* action, int error) {
    if (mFd >= 0) {
        // Cuts a half written line off; where that cannot be done, nothing was written either.
        if (ftruncate(mFd, mFileBytes) != 0) {
            mFileBytes = 0;
        }
        close(mFd);
        mFd = -1;
    }
    mLost += mPendingEvents;
    mPendingEvents = 0;
    mPending.clear();
    mFailure = std::string(action) + " " + mPath + ": " + std::generic_category().message(error);
}

}  // namespace korvane::tv
