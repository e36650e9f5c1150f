// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "fuzz/table_body.h"

#include "fuzz/table_history.h"
#include "support/table_kinds.h"

namespace {

template <typename Kind>
std::string play(ByteSource& bytes) {
    return TableHistory<Kind>(bytes).play();
}

}  // namespace

std::string playTable(const std::uint8_t* data, std::size_t size) {
    ByteSource bytes(data, size);
    return bytes.flag() ? play<InnerTableKind>(bytes) : play<OuterTableKind>(bytes);
}
