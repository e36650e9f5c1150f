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
};

/// The texts of an exception, copied, so that they outlive whatever they were made from.
class SORVANE_API SVExceptionMessage : public SVObject {
public:
    using String = std::basic_string<char, std::char_traits<char>, SVStdAllocator<char>>;

    /// Copies both texts.
    /// Parameters: message and file, zero-terminated; null counts as empty.
    /// Ownership: neither is kept.
    /// Result: the texts. Errors: none thrown; a text that neither memory nor the reserve of the
    ///   allocator has room for is cut to what needs none.
    /// Guarantee: no exception. Threads: any. Signal context: normal context only.
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
/// SVObject.
class SORVANE_API SVException : public SVObject {
public:
    /// Makes the report.
    /// Parameters: message and file, zero-terminated; line, the fixed number of the throw's site;
    ///   type, the kind; code, errno for a failed call of the operating system and 0 otherwise.
    /// Ownership: the texts are copied. Result: the exception.
    /// Errors: none thrown, also when there is no memory at all. Guarantee: no exception.
    /// Threads: any. Signal context: normal context only.
    SVException(const char* message, const char* file, unsigned int line, svexceptiontype type,
                int code) noexcept;
    SVException(const SVException&) noexcept = default;
    SVException& operator=(const SVException&) noexcept = default;
    ~SVException() noexcept override;

    /// Read the report back.
    /// Ownership: the texts belong to the exception and live as long as it does.
    /// Errors: none. Guarantee: no exception. Threads: any, as for a constant object.
    /// Signal context: any context.
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
