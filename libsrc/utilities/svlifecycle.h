// Birth and death of the shared state: how many managers there are, whether signals are being
// handled, and who tears the state down.
//
// The problem. A manager is the last one when its destructor finds no other alive and signals
// being handled. Between finding that out and acting on it, and while it acts, a signal may make
// managers and destroy them, on this thread or on others, and register and start anew.
//
// The mechanism. One word holds the number of managers, whether signals are being handled, whether
// the state is being torn down, and a generation. It changes in one instruction from "one manager,
// handling" to "none, not handling, being torn down": so it is decided once that a state is torn
// down, and a manager is made either before that, and there was no last one, or after it.
//
// A teardown that somebody was interrupted in, or is slow with, is completed by the next one who
// is to change something, so that the change goes to the state after it. Each teardown has its own
// generation. Whoever resumes one then finds the word changed, and goes no further; the step that
// he was interrupted in takes back what it undid (see svownership.h and the dispositions).
//
// numberOfManagers and currentlyHandlingSignals are copies for those who watch. Whoever changes the
// word copies it there, and again if it has changed meanwhile.
#ifndef SORVANE_SVLIFECYCLE_H
#define SORVANE_SVLIFECYCLE_H

namespace Sorvane {

/// Everything here may be called in any context, by any thread, and throws nothing.
namespace SVLifecycle {

/// A teardown, told apart from every other one; 0 is none.
using Teardown = unsigned int;

/// The number of live managers.
unsigned int managerCount() noexcept;

/// Whether signals are being handled.
bool handlingQ() noexcept;
void setHandling(bool handling) noexcept;

/// How often that was ended by setHandling(false).
unsigned int timesStopped() noexcept;

/// Counts a manager in.
void managerMade() noexcept;

/// Counts a manager out. Result: the teardown that it has to carry out, if it was the last one and
/// signals were being handled, which they then no longer are.
Teardown managerGone() noexcept;

/// The teardown that is being carried out, if any.
Teardown currentTeardown() noexcept;

/// Resets the dispositions as the given teardown does, or as the current one does, if there is one.
/// Whoever gives or asks for an answer while the state is being torn down has the second done
/// first, so that it is an answer of the state after it.
void resetDispositions(Teardown teardown) noexcept;
void resetDispositionsIfTornDown() noexcept;

/// Ends a teardown: when it is complete, or failed and signals go on being handled. Does nothing
/// when somebody else has ended it.
void teardownComplete(Teardown teardown) noexcept;
void teardownFailed(Teardown teardown) noexcept;

}  // namespace SVLifecycle

}  // namespace Sorvane

#endif
