// What a change of one slot has to put back if it is not made to its end.
//
// A child of fork() may have been split off while another thread was writing a slot. That thread
// does not exist in the child, and what it wrote may be half of a record. So before a slot that
// others can find is changed, its contents are kept here; afterwards they are forgotten.
#ifndef SORVANE_SVJOURNAL_H
#define SORVANE_SVJOURNAL_H

#include "svsignaltables.h"

namespace Sorvane {

/// Signal context: inside the gate, or in a child that has taken it over.
class SVJournal {
public:
    using Slot = SVSignalHandlerTable::Entry;

    /// Keeps a slot of a table, and the table's counts, for the length of a scope.
    SVJournal(SVSignalHandlerTable& table, Slot* slot) noexcept;
    SVJournal(const SVJournal&) = delete;
    SVJournal& operator=(const SVJournal&) = delete;
    ~SVJournal();

    /// Puts back what is kept, if anything is.
    static void undo() noexcept;
};

}  // namespace Sorvane

#endif
