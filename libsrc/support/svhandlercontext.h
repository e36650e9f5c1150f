// Whether this thread is inside a signal handler that the library runs.
//
// What is interrupted by a signal may be anything, the heap's own code included. So inside a
// handler storage comes from the operating system directly and the heap is left alone; this is how
// the allocation operators know.
#ifndef SORVANE_SVHANDLERCONTEXT_H
#define SORVANE_SVHANDLERCONTEXT_H

namespace Sorvane {

namespace SVHandlerContext {

/// How many dispatches this thread is inside of. The model of thread-local storage is the one
/// whose access never allocates. A handler that leaves by siglongjmp leaves its dispatch counted:
/// the thread then goes on getting its storage from the operating system, which is only slower.
extern constinit thread_local unsigned int depth __attribute__((tls_model("initial-exec")));

/// Signal context: any context.
inline bool insideQ() noexcept {
    return depth != 0;
}

/// Lasts as long as one dispatch. Signal context: handler only.
class Scope {
public:
    Scope() noexcept { depth = depth + 1; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope() { depth = depth - 1; }
};

}  // namespace SVHandlerContext

}  // namespace Sorvane

#endif
