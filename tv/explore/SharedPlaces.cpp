// SPDX-License-Identifier: Apache-2.0
#include "tv/explore/SharedPlaces.h"

#include <algorithm>

namespace korvane::tv {

void SharedPlaces::note(const SchedulePoint& point) {
    Object& object = mObjects[point.object];
    object.firstThread = object.firstThread == 0 ? point.thread : object.firstThread;
    object.shared = object.shared || object.firstThread != point.thread;
    object.changed = object.changed || (point.step != Step::Read && point.step != Step::AtomicLoad);
    if (std::find(object.places.begin(), object.places.end(), point.code) == object.places.end()) {
        object.places.push_back(point.code);
    }
}

void SharedPlaces::endRun() {
    for (const auto& [address, object] : mObjects) {
        if (object.shared && object.changed) {
            mPlaces.insert(object.places.begin(), object.places.end());
        }
    }
    mObjects.clear();
}

Preemption Learning::preempt(const SchedulePoint& point, const ThreadList& runnable) {
    mPlaces.note(point);
    return point.index >= mStrategy.askFrom() ? mStrategy.preempt(point, runnable) : Preemption{};
}

}  // namespace korvane::tv
