// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svexception.h"

#include <algorithm>
#include <cstring>

namespace Sorvane {

namespace {

// An exception that can't be made would hide the failure that it was to report, so a text for
// which there is no memory is shortened to the room that every string has in itself.
void assignWhatFits(SVExceptionMessage::String& target, const char* text) noexcept {
    const std::size_t length = (text == nullptr) ? 0 : std::strlen(text);
    try {
        target.assign(text == nullptr ? "" : text, length);
    } catch (const std::bad_alloc&) {  // GCOVR_EXCL_BR_LINE: assign() throws no other
        target.assign(text, std::min(length, target.capacity()));
    }
}

}  // namespace

SVExceptionMessage::SVExceptionMessage(const char* message, const char* file) noexcept {
    assignWhatFits(m_message, message);
    assignWhatFits(m_file, file);
}

SVExceptionMessage::SVExceptionMessage(const SVExceptionMessage& other) noexcept
    : SVExceptionMessage(other.getMessage(), other.getFile()) {}

SVExceptionMessage& SVExceptionMessage::operator=(const SVExceptionMessage& other) noexcept {
    if (this != &other) {
        assignWhatFits(m_message, other.getMessage());
        assignWhatFits(m_file, other.getFile());
    }
    return *this;
}

SVExceptionMessage::~SVExceptionMessage() noexcept = default;

SVException::SVException(const char* message, const char* file, unsigned int line,
                         svexceptiontype type, int code) noexcept
    : m_message(message, file), m_line(line), m_type(type), m_code(code) {}

SVException::~SVException() noexcept = default;

}  // namespace Sorvane
