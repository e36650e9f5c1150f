// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/collision.h"

#include <stdexcept>

#include "support/shared_state.h"

namespace {

void insert(HandlerTable& table, SimpleHandler handler) {
    table.insert(addressOf(handler), userRecord(0, handler));
}

bool collideQ(const Collision& handlers) {
    HandlerTable table;
    insert(table, handlers.first);
    insert(table, handlers.middle);
    insert(table, handlers.last);
    table.remove(addressOf(handlers.middle));
    return table.has_key(addressOf(handlers.first)) && !table.has_key(addressOf(handlers.last));
}

}  // namespace

Collision findCollision() {
    for (const SimpleHandler first : numberedHandlers) {
        for (const SimpleHandler middle : numberedHandlers) {
            for (const SimpleHandler last : numberedHandlers) {
                const Collision handlers = {first, middle, last};
                if (first != middle && first != last && middle != last && collideQ(handlers)) {
                    return handlers;
                }
            }
        }
    }
    throw std::logic_error("no three handlers collide");
}
