// Being out of memory for the whole of an operation.
//
// An operation that could not have the memory for what makes it safe goes on without. If memory
// came back just then for what the operation itself needs, a failure that its caller is to hear of
// would go unreported; so once there was none, there is none until the operation's end.
#ifndef SORVANE_SVMEMORYREFUSAL_H
#define SORVANE_SVMEMORYREFUSAL_H

namespace Sorvane {

/// For the length of a scope, this thread's allocations through SVObject fail.
/// Threads: each for itself. Signal context: any context in which nothing can interrupt the scope.
class SVMemoryRefusal {
public:
    SVMemoryRefusal() noexcept { inForce = true; }
    SVMemoryRefusal(const SVMemoryRefusal&) = delete;
    SVMemoryRefusal& operator=(const SVMemoryRefusal&) = delete;
    ~SVMemoryRefusal() { inForce = false; }

    static bool inForceQ() noexcept { return inForce; }

private:
    static constinit thread_local bool inForce __attribute__((tls_model("initial-exec")));
};

}  // namespace Sorvane

#endif
