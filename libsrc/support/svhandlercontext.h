// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Whether the ordinary heap is out of bounds for this thread.
//
// What a signal has interrupted may be anything, the heap's own code included. So inside a dispatch
// the heap is left alone; and so it is while an operation keeps others waiting, because whoever
// waits may have interrupted the heap as well. The allocation operators ask here.
#ifndef SORVANE_SVHANDLERCONTEXT_H
#define SORVANE_SVHANDLERCONTEXT_H

#include <cstdint>

namespace Sorvane {

namespace SVHandlerContext {

/// How many dispatches and changes of the shared state this thread is inside of. The model of
/// thread-local storage is the one whose access never allocates. A handler that leaves by
/// siglongjmp leaves its dispatch counted: the thread then goes on getting its storage from the
/// library's own store, which does no harm. Its address also tells threads apart.
extern constinit thread_local unsigned int depth __attribute__((tls_model("initial-exec")));

/// Signal context: any context.
inline bool insideQ() noexcept {
    return depth != 0;
}

/// Lasts as long as one dispatch or change. Signal context: any context.
class Scope {
public:
    Scope() noexcept { depth = depth + 1; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope() { depth = depth - 1; }
};

/// Tells this thread from every other one; the same in a child that it forks.
inline const void* thisThread() noexcept {
    return &depth;
}

/// Spreads threads over 16 bits, for places in which most of them are alone.
inline unsigned int spread(const void* thread) noexcept {
    constexpr std::uint32_t spreading = 2654435769U;
    const auto bits = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(thread) >> 6U);
    return bits * spreading >> 16U;
}

}  // namespace SVHandlerContext

}  // namespace Sorvane

#endif
