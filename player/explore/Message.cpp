// SPDX-License-Identifier: Apache-2.0
#include "player/explore/Message.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tv/explore/Exploration.h"

namespace korvane::player {
namespace {

constexpr char kFieldEnd = '\x1f';

struct MessageHead {
    MessageKind kind;
    uint32_t bytes;
};

/// Also from a signal handler.
void writeNow(int pipe, const void* data, size_t bytes) {
    const auto* from = static_cast<const char*>(data);
    while (bytes > 0) {
        const long count = syscall(SYS_write, pipe, from, bytes);
        if (count < 0 && errno != EINTR) {
            return;  // the parent is gone
        }
        from += count > 0 ? count : 0;
        bytes -= count > 0 ? static_cast<size_t>(count) : 0;
    }
}

}  // namespace

std::string joinFields(const Fields& fields) {
    std::string bytes;
    for (const auto& field : fields) {
        bytes += field + kFieldEnd;
    }
    return bytes;
}

Fields splitFields(const std::string& bytes) {
    Fields fields;
    size_t from = 0;
    for (size_t end = bytes.find(kFieldEnd); end != std::string::npos;
         end = bytes.find(kFieldEnd, from)) {
        fields.push_back(bytes.substr(from, end - from));
        from = end + 1;
    }
    return fields;
}

void sendMessage(int pipe, MessageKind kind, const std::string& bytes) {
    const MessageHead head{kind, static_cast<uint32_t>(bytes.size())};
    std::string whole(reinterpret_cast<const char*>(&head), sizeof head);
    whole += bytes;
    writeNow(pipe, whole.data(), whole.size());
}

std::vector<Message> takeMessages(std::string* read) {
    std::vector<Message> messages;
    size_t from = 0;
    MessageHead head{};
    while (read->size() - from >= sizeof head) {
        std::memcpy(&head, read->data() + from, sizeof head);
        if (read->size() - from - sizeof head < head.bytes) {
            break;
        }
        messages.push_back({head.kind, read->substr(from + sizeof head, head.bytes)});
        from += sizeof head + head.bytes;
    }
    read->erase(0, from);
    return messages;
}

void sendCrash(int pipe, const CrashRecord& record, const tv::Deviation* deviations) {
    const size_t bytes = record.deviations * sizeof(tv::Deviation);
    const MessageHead head{MessageKind::Crash, static_cast<uint32_t>(sizeof record + bytes)};
    writeNow(pipe, &head, sizeof head);
    writeNow(pipe, &record, sizeof record);
    writeNow(pipe, deviations, bytes);
}

std::vector<tv::Deviation> readCrash(const std::string& bytes, CrashRecord* record) {
    std::memcpy(record, bytes.data(), sizeof *record);
    std::vector<tv::Deviation> deviations(record->deviations);
    std::memcpy(deviations.data(), bytes.data() + sizeof *record,
                deviations.size() * sizeof(tv::Deviation));
    return deviations;
}

std::vector<const void*> readCalls(const std::string& bytes) {
    std::vector<const void*> calls(bytes.size() / sizeof(const void*));
    std::memcpy(calls.data(), bytes.data(), calls.size() * sizeof(const void*));
    return calls;
}

/// The address is taken as a call's, whose return address is one further. Where it lies outside the
/// library, as in libc, the library's innermost call says more.
Fault faultOf(const Crash& crash) {
    std::vector<const void*> codes{static_cast<const char*>(crash.record.code) + 1};
    codes.insert(codes.end(), crash.calls.begin(), crash.calls.end());
    const auto places = tv::Exploration::places(codes);
    const bool inside = crash.calls.empty() || ofTheLibrary(crash.record.code);
    const char* const name = sigdescr_np(crash.record.signal);
    Fault fault;
    fault.what =
        fmt::format("crash: {} in {}", name != nullptr ? name : "signal", places[inside ? 0 : 1]);
    for (const auto& place : places) {
        fault.detail += place + "\n";
    }
    return fault;
}

bool ofTheLibrary(const void* code) {
    Dl_info info{};
    return dladdr(code, &info) != 0 && info.dli_fname != nullptr &&
           std::strstr(info.dli_fname, "libkorvane_tunnelrenderer") != nullptr;
}

}  // namespace korvane::player
