// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Collects garbage while it goes on: the collector protects pages, and learns by SIGSEGV which of
// them have been written to.

#define GC_THREADS
#include <gc.h>

#include <cstdio>

#include "plugin_of_host.h"

namespace {

struct Node {
    Node* next;
    unsigned long value;
};

constexpr unsigned long length = 20000;
constexpr int times = 40;

Node* makeList(unsigned long seed) {
    Node* first = nullptr;
    for (unsigned long index = 0; index < length; ++index) {
        auto* const node = static_cast<Node*>(GC_MALLOC(sizeof(Node)));
        node->next = first;
        node->value = index * seed;
        first = node;
    }
    return first;
}

unsigned long sum(const Node* node) {
    unsigned long total = 0;
    for (; node != nullptr; node = node->next) {
        total += node->value;
    }
    return total;
}

// What is kept is written to again and again, and what is dropped makes the collector work.
void work() {
    Node* const kept = makeList(3);
    unsigned long dropped = 0;
    for (int time = 0; time < times; ++time) {
        dropped += sum(makeList(static_cast<unsigned long>(time)));
        for (Node* node = kept; node != nullptr; node = node->next) {
            node->value += 1;
        }
        GC_collect_a_little();
    }
    std::printf("kept %lu, dropped %lu\n", sum(kept), dropped);
    std::fflush(stdout);
}

}  // namespace

int main() {
    GC_INIT();
    GC_enable_incremental();
    std::printf("incremental: %s\n", GC_is_incremental_mode() != 0 ? "yes" : "no");
    loadPlugin();
    work();
    unloadPlugin();
    takeSnapshot("later");
    work();
    std::printf("collected: %s\n", GC_get_gc_no() > 2 ? "yes" : "no");
    return 0;
}
