// SPDX-License-Identifier: Apache-2.0
// The property store, never destroyed: libraries read properties in static initialisers and
// destructors.
#include "tv/Properties.h"

#include <map>
#include <mutex>

#include "include/ThreadAnnotations.h"

namespace korvane::tv {
namespace {

/// The platform's buffer for a value has 92 bytes, the terminating zero included.
constexpr size_t kLongestValue = 91;

struct PropertyStore {
    std::mutex lock;
    std::map<std::string, std::string> values KORVANE_GUARDED_BY(lock);
};

PropertyStore& store() {
    static PropertyStore& instance = *new PropertyStore;
    return instance;
}

}  // namespace

bool setProperty(const std::string& name, const std::string& value) {
    if (name.empty() || value.size() > kLongestValue) {
        return false;
    }
    const std::lock_guard<std::mutex> guard(store().lock);
    store().values[name] = value;
    return true;
}

std::optional<std::string> getProperty(const std::string& name) {
    const std::lock_guard<std::mutex> guard(store().lock);
    const auto found = store().values.find(name);
    return found == store().values.end() ? std::nullopt : std::optional(found->second);
}

void clearProperties() {
    const std::lock_guard<std::mutex> guard(store().lock);
    store().values.clear();
}

}  // namespace korvane::tv
