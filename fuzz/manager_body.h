// One history of several managers, as a byte string tells it.
#ifndef SORVANE_FUZZ_MANAGER_BODY_H
#define SORVANE_FUZZ_MANAGER_BODY_H

#include <cstddef>
#include <cstdint>
#include <string>

/// Plays every public operation, the host's own installations, and deliveries of real signals, in
/// any order. After each the process must agree with the model about everything.
/// Result: the first disagreement; empty when there is none.
std::string playManagers(const std::uint8_t* data, std::size_t size);

#endif
