#include "svjournal.h"

#include <atomic>
#include <new>

namespace Sorvane {

namespace {

// The slot's former contents lie in raw storage, so that nothing of this is constructed or
// destroyed with the module.
alignas(SVJournal::Slot) constinit unsigned char former[sizeof(SVJournal::Slot)] = {};
constinit SVSignalHandlerTable* owner = nullptr;
constinit SVJournal::Slot* changed = nullptr;
constinit unsigned int used = 0;
constinit unsigned int fill = 0;

SVJournal::Slot& kept() noexcept {
    return *std::launder(reinterpret_cast<SVJournal::Slot*>(former));
}

// A forked child sees memory as it was at one instant, so nothing but the compiler could make it
// see these steps in another order.
void inThisOrder() noexcept {
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

}  // namespace

SVJournal::SVJournal(SVSignalHandlerTable& table, Slot* slot) noexcept {
    *new (former) Slot = *slot;
    changed = slot;
    used = table.used;
    fill = table.fill;
    inThisOrder();
    owner = &table;
    inThisOrder();
}

SVJournal::~SVJournal() {
    inThisOrder();
    owner = nullptr;
    inThisOrder();
}

void SVJournal::undo() noexcept {
    if (owner != nullptr) {
        *changed = kept();
        owner->used = used;
        owner->fill = fill;
        owner = nullptr;
    }
}

}  // namespace Sorvane
