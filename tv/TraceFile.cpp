// SPDX-License-Identifier: Apache-2.0
#include "tv/TraceFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "tv/clock/VirtualTime.h"

namespace korvane::tv {
namespace {

using Json = nlohmann::ordered_json;

/// Tracks of slices are drawn as threads, with ids above any that Linux assigns.
constexpr int32_t kFirstTrackThread = 1 << 30;

std::string threadName(int32_t thread) {
    if (VirtualTime::active()) {
        return VirtualTime::threadName(thread);
    }
    std::ifstream comm("/proc/self/task/" + std::to_string(thread) + "/comm");
    std::string name;
    return std::getline(comm, name) ? name : "thread " + std::to_string(thread);
}

/// The unit of the format. A double holds nanoseconds exactly for the first 52 days of uptime.
double microseconds(int64_t ns) {
    return static_cast<double>(ns) / 1e3;
}

/// Virtual runs are reproducible to the byte, so they carry a fixed process number.
int processNumber() {
    return VirtualTime::active() ? 1 : getpid();
}

/// Adds what an event has besides its name, thread and time.
void addDetails(const TraceEvent& event, Json* json) {
    switch (event.kind) {
        case TraceEvent::Kind::Begin:
            (*json)["ph"] = "B";
            break;
        case TraceEvent::Kind::End:
            (*json)["ph"] = "E";
            break;
        case TraceEvent::Kind::Counter:
            json->update({{"ph", "C"}, {"args", {{"value", event.value}}}});
            break;
        case TraceEvent::Kind::AsyncBegin:
            json->update({{"ph", "b"}, {"cat", "async"}, {"id", event.value}});
            break;
        case TraceEvent::Kind::AsyncEnd:
            json->update({{"ph", "e"}, {"cat", "async"}, {"id", event.value}});
            break;
        case TraceEvent::Kind::Slice:
            json->update({{"ph", "X"}, {"dur", microseconds(event.value)}});
            break;
    }
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
    Json json = {{"name", event.name.data()},
                 {"pid", processNumber()},
                 {"tid", thread},
                 {"ts", microseconds(event.timeNs)}};
    addDetails(event, &json);
    addLine(json);
    ++mPendingEvents;
}

void TraceFile::addTrack(int32_t track, const std::string& name) {
    nameThread(kFirstTrackThread + track, name);
}

void TraceFile::nameThread(int32_t thread, const std::string& name) {
    mNamed.insert(thread);
    addLine({{"name", "thread_name"},
             {"ph", "M"},
             {"pid", processNumber()},
             {"tid", thread},
             {"args", {{"name", name}}}});
}

void TraceFile::addLine(const Json& event) {
    if (mFd < 0) {
        return;
    }
    mPending += mFirstLine ? "" : ",\n";
    // Names are any bytes; what is no UTF-8 becomes U+FFFD, so that the file stays valid JSON.
    mPending += event.dump(-1, ' ', false, Json::error_handler_t::replace);
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
        // Cuts off a half-written line. What cannot be cut (a pipe) is no file to keep whole.
        [[maybe_unused]] const int result = ftruncate(mFd, mFileBytes);
        close(mFd);
        mFd = -1;
    }
    mLost += mPendingEvents;
    mPendingEvents = 0;
    mPending.clear();
    mFailure = std::string(action) + " " + mPath + ": " + std::generic_category().message(error);
}

}  // namespace korvane::tv
