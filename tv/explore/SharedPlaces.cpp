// SPDX-License-Identifier: Apache-2.0
#include "tv/explore/SharedPlaces.h"

#include <algorithm>

namespace korvane::tv {

void SharedPlaces::note(const SchedulePoint& point) {
    noteThread(point.thread);
    Object& object = mObjects[point.object];
    auto user = std::find_if(object.users.begin(), object.users.end(),
                             [&](const User& other) { return other.thread == point.thread; });
    if (user == object.users.end()) {
        user = object.users.insert(user, {point.thread, 0});
    }
    if (point.step != Step::Read && point.step != Step::AtomicLoad) {
        user->newestAtChange = mNewestThread;
    }
    if (std::find(object.places.begin(), object.places.end(), point.code) == object.places.end()) {
        object.places.push_back(point.code);
    }
}

bool SharedPlaces::Object::isShared() const {
    return std::any_of(users.begin(), users.end(), [this](const User& changer) {
        return std::any_of(users.begin(), users.end(), [&](const User& other) {
            return other.thread != changer.thread && other.thread <= changer.newestAtChange;
        });
    });
}

void SharedPlaces::endRun() {
    for (const auto& [address, object] : mObjects) {
        if (object.isShared()) {
            mPlaces.insert(object.places.begin(), object.places.end());
        }
    }
    mObjects.clear();
    mNewestThread = 0;
}

Preemption Learning::preempt(const SchedulePoint& point, const ThreadList& runnable) {
    mPlaces.note(point);
    return point.index >= mStrategy.askFrom() ? mStrategy.preempt(point, runnable) : Preemption{};
}

}  // namespace korvane::tv
