// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// The one exception type of the library.
#ifndef SORVANE_SVEXCEPTION_H
#define SORVANE_SVEXCEPTION_H

#include <string>

#include "svexport.h"
#include "svobject.h"
#include "svstdallocator.h"

namespace Sorvane {

/// What kind of failure an exception reports. The numbers are fixed: logs and callers know them.
enum svexceptiontype : int {
    svexceptionOperatingSystemCallFailed = 4,  ///< the code is the call's errno
    svexceptionAllocationFailed = 5,
    svexceptionIteratorMisused = 12,
    svexceptionInternalTableError = 20,
    svexceptionRequestRefused = 24,
};

/// The texts of an exception, copied, so that they outlive whatever they were made from. A text
/// that neither memory nor the allocator's reserve has room for is cut to what needs none.
///
/// Signal context: any for reading; otherwise normal context only.
class SORVANE_API SVExceptionMessage : public SVObject {
public:
    using String = std::basic_string<char, std::char_traits<char>, SVStdAllocator<char>>;

    /// Copies both texts; null counts as empty.
    SVExceptionMessage(const char* message, const char* file) noexcept;
    SVExceptionMessage(const SVExceptionMessage& other) noexcept;
    SVExceptionMessage& operator=(const SVExceptionMessage& other) noexcept;
    ~SVExceptionMessage() noexcept override;

    const char* getMessage() const noexcept { return m_message.c_str(); }
    const char* getFile() const noexcept { return m_file.c_str(); }

private:
    String m_message;
    String m_file;
};

/// Reports a failure of any class of the library; thrown by value. It can also be caught as an
/// SVObject. Neither making nor copying one fails, even when there is no memory at all.
///
/// Signal context: any for reading; otherwise normal context only.
class SORVANE_API SVException : public SVObject {
public:
    /// Copies both texts; null counts as empty. The line is the fixed number of the throw's site.
    /// The code is errno for a failed call of the operating system and 0 otherwise.
    SVException(const char* message, const char* file, unsigned int line, svexceptiontype type,
                int code) noexcept;
    SVException(const SVException&) noexcept = default;
    SVException& operator=(const SVException&) noexcept = default;
    ~SVException() noexcept override;

    /// Read the report back. The texts live as long as the exception.
    const char* getMessage() const noexcept { return m_message.getMessage(); }
    const char* getFile() const noexcept { return m_message.getFile(); }
    unsigned int getLine() const noexcept { return m_line; }
    svexceptiontype getType() const noexcept { return m_type; }
    int getCode() const noexcept { return m_code; }

private:
    SVExceptionMessage m_message;
    unsigned int m_line;
    svexceptiontype m_type;
    int m_code;
};

}  // namespace Sorvane

#endif
