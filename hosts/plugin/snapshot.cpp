// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Takes a snapshot by being loaded, for hosts that can load a shared object and no more. Its name
// is in SORVANE_HOSTS_SNAPSHOT.

#include <cstdlib>

#include "probe.h"

namespace {

__attribute__((constructor)) void take() {
    hosts_snapshot(std::getenv("SORVANE_HOSTS_SNAPSHOT"));
}

}  // namespace
