#pragma once

namespace traiklofox::foundation {

/// A static object that is made at compile time and outlives every exit.
template <class T>
union NeverDestroyed {
    constexpr NeverDestroyed() : value() {}
    constexpr ~NeverDestroyed() {}

    T value;
};

}  // namespace traiklofox::foundation
