// Birth and death of the shared state: who is the first manager, who the last, and whether signals
// are being handled.
//
// The problem. A manager is the last one when its destructor finds no other alive and signals
// being handled. Between finding that out and acting on it, and while it acts, a signal may make
// managers and destroy them, on this thread or on others, and register and start anew.
//
// The mechanism. One word holds a generation, whether signals are being handled, and whether the
// state is being torn down. The last manager reads the word, counts itself out, and then, if it
// was the last, swaps the word for one of the next generation that says "not handled, being torn
// down". It does not if the generation has changed since the word was read; a manager that is made
// when none is alive changes it, and so does another one's teardown. So a state is torn down once,
// and only if no manager was made in between.
//
// A teardown that somebody was interrupted in, or is slow with, is completed by the next one who
// is to change the registry, so that the change goes to the state after it. Whoever resumes the
// teardown then finds the word changed, and goes no further. The step that it was interrupted in it
// still takes: a handler that is put back then is displaced again if its signal has been taken over
// anew; dispositions that are reset then are not set again.
//
// currentlyHandlingSignals follows the word: whoever changes the word copies it there, and again
// if it has changed meanwhile.
#ifndef SORVANE_SVLIFECYCLE_H
#define SORVANE_SVLIFECYCLE_H

#include "../support/svatomicref.h"
#include "svsignalhandlermanager.h"

namespace Sorvane {

/// Everything here may be called in any context, by any thread, and throws nothing.
namespace SVLifecycle {

/// A teardown, told apart from every other one; 0 is none.
using Teardown = unsigned int;

/// The number of live managers. Plain for those who read it, and changed on any thread.
inline SVAtomicRef<unsigned int> managerCount() noexcept {
    return SVAtomicRef<unsigned int>(SVSignalHandlerManager::numberOfManagers);
}

/// Whether signals are being handled.
inline bool handlingQ() noexcept {
    return SVAtomicRef<bool>(SVSignalHandlerManager::currentlyHandlingSignals).load();
}
void setHandling(bool handling) noexcept;

/// Counts a manager in.
void managerMade() noexcept;

/// Counts a manager out. Result: the teardown that it has to carry out, if it was the last one and
/// signals were being handled, which they then no longer are.
Teardown managerGone() noexcept;

/// The teardown that is being carried out, if any.
Teardown currentTeardown() noexcept;

/// Ends a teardown: when it is complete, or failed and signals go on being handled. Does nothing
/// when somebody else has ended it.
void teardownComplete(Teardown teardown) noexcept;
void teardownFailed(Teardown teardown) noexcept;

}  // namespace SVLifecycle

}  // namespace Sorvane

#endif
