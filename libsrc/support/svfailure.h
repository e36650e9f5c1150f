// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// A failure that is told before it is thrown.
//
// Making and throwing an exception allocates and runs the C++ runtime's own code, which is not
// possible everywhere where something can fail. Such code returns its failure, and whoever called
// it throws it where that is safe.
#ifndef SORVANE_SVFAILURE_H
#define SORVANE_SVFAILURE_H

#include <type_traits>

#include "svexception.h"
#include "svexport.h"

namespace Sorvane {

/// What an SVException will say, or nothing when nothing failed. A plain value; the texts are
/// literals. Signal context: any, but for what makes or throws the exception.
class SVFailure {
public:
    /// Nothing failed.
    constexpr SVFailure() noexcept = default;

    /// Something failed: with what the exception is going to say.
    constexpr SVFailure(const char* message, const char* file, unsigned int line,
                        svexceptiontype type, int code) noexcept
        : m_message(message), m_file(file), m_line(line), m_type(type), m_code(code) {}

    /// Whether something failed.
    constexpr explicit operator bool() const noexcept { return m_message != nullptr; }

    /// The same failure; if nothing failed yet, does what comes next. Result: the failure, or the
    /// one that the next work returns.
    template <typename Next>
    SVFailure then(Next next) const {
        if constexpr (std::is_void_v<decltype(next())>) {
            if (m_message == nullptr) {
                next();
            }
            return *this;
        } else {
            return m_message != nullptr ? *this : next();
        }
    }

    /// The exception that says so.
    SVException exception() const noexcept {
        return SVException(m_message, m_file, m_line, m_type, m_code);
    }
    /// Throws it, if something failed.
    void throwIfAny() const {
        if (m_message != nullptr) {
            throwIt();
        }
    }
    /// Made in the library, so that the headers do for programs that are compiled without
    /// exceptions. A failure ends these.
    [[noreturn]] SORVANE_API void throwIt() const;

private:
    const char* m_message = nullptr;
    const char* m_file = nullptr;
    unsigned int m_line = 0;
    svexceptiontype m_type = svexceptionInternalTableError;
    int m_code = 0;
};

}  // namespace Sorvane

#endif
