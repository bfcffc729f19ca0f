// Another value in a variable for as long as this object lives; for the loaders' entry points.
#pragma once

#include <utility>

namespace korvane::test {

template <typename Value>
class Swapped {
public:
    Swapped(Value& variable, std::decay_t<Value> value)
        : mVariable(variable), mBefore(std::exchange(variable, value)) {}
    ~Swapped() { mVariable = mBefore; }
    Swapped(const Swapped&) = delete;
    Swapped& operator=(const Swapped&) = delete;

private:
    Value& mVariable;
    const Value mBefore;
};

}  // namespace korvane::test
