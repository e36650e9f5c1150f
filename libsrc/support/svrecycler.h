// Objects that are recycled and never released, in one list for each type.
//
// Whoever holds a pointer to such an object, however old, may still read its atomic members: that
// is what readers without a lock need. The list is only ever pushed onto, so it can be walked at
// any instruction, on any thread.
#ifndef SORVANE_SVRECYCLER_H
#define SORVANE_SVRECYCLER_H

#include <atomic>

namespace Sorvane {

/// All objects of a type ever made here. T has a member `T* nextMade`, and a member function
/// `bool takeQ()` that takes a free object for the caller alone and says whether it did.
/// Threads: any. Signal context: any context.
template <typename T>
class SVRecycler {
public:
    constexpr SVRecycler() noexcept = default;
    SVRecycler(const SVRecycler&) = delete;
    SVRecycler& operator=(const SVRecycler&) = delete;

    /// An object for the caller alone, recycled or new; null without memory.
    T* take() noexcept {
        for (T* object = newest(); object != nullptr; object = object->nextMade) {
            if (object->takeQ()) {
                return object;
            }
        }
        T* const made = new T;
        if (made != nullptr) {
            push(*made);
        }
        return made;
    }

    template <typename Action>
    void forEach(Action action) {
        for (T* object = newest(); object != nullptr; object = object->nextMade) {
            action(*object);
        }
    }

private:
    static_assert(std::atomic<T*>::is_always_lock_free);

    T* newest() const noexcept { return m_newest.load(std::memory_order_acquire); }

    void push(T& made) noexcept {
        made.nextMade = m_newest.load(std::memory_order_relaxed);
        // Release pairs with newest(): whoever finds the object finds it made.
        while (!m_newest.compare_exchange_weak(made.nextMade, &made, std::memory_order_release,
                                               std::memory_order_relaxed)) {
        }
    }

    std::atomic<T*> m_newest{nullptr};
};

}  // namespace Sorvane

#endif
