// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "svsignalhandler.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <string_view>

// The text form of a record. Numbers are formatted here rather than by the stream, so that a line
// reads the same whatever base or format the caller's stream has set.

namespace Sorvane {

namespace {

constexpr const char* unknownText = "unknown";

void writeNumber(std::ostream& stream, std::uintptr_t value, int base = 10) {
    char digits[3 * sizeof(value)];
    const auto result = std::to_chars(digits, digits + sizeof(digits), value, base);
    stream.write(digits, result.ptr - digits);
}

void writeSignedNumber(std::ostream& stream, int value) {
    if (value < 0) {
        stream << '-';
    }
    // Negated as unsigned, because the lowest int has no positive counterpart.
    const auto magnitude = static_cast<unsigned int>(value);
    writeNumber(stream, value < 0 ? 0U - magnitude : magnitude);
}

void writeOffset(std::ostream& stream, std::uintptr_t offset) {
    stream << "+0x";
    writeNumber(stream, offset, 16);
}

void writeEscaped(std::ostream& stream, std::string_view text) {
    for (const char character : text) {
        switch (character) {
            case '<':
                stream << "&lt;";
                break;
            case '>':
                stream << "&gt;";
                break;
            case '&':
                stream << "&amp;";
                break;
            case '\n':
                stream << "&#10;";
                break;
            default:
                stream << character;
        }
    }
}

void writeSignalName(std::ostream& stream, int signalNumber) {
    if (signalNumber >= SIGRTMIN && signalNumber <= SIGRTMAX) {
        stream << "SIGRTMIN+";
        writeSignedNumber(stream, signalNumber - SIGRTMIN);
    } else if (const char* const name = sigabbrev_np(signalNumber)) {
        stream << "SIG" << name;
    } else {
        stream << unknownText;
    }
}

void writeSymbol(std::ostream& stream, const char* symbol) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> readable(
        abi::__cxa_demangle(symbol, nullptr, nullptr, &status), &std::free);
    writeEscaped(stream, readable ? readable.get() : symbol);
}

void writePlaceInFunction(std::ostream& stream, std::uintptr_t address, const Dl_info& place) {
    writeSymbol(stream, place.dli_sname);
    const auto start = reinterpret_cast<std::uintptr_t>(place.dli_saddr);
    if (address != start) {
        writeOffset(stream, address - start);
    }
}

void writePlaceInModule(std::ostream& stream, std::uintptr_t address, const Dl_info& place) {
    const char* const slash = std::strrchr(place.dli_fname, '/');
    writeEscaped(stream, slash == nullptr ? place.dli_fname : slash + 1);
    writeOffset(stream, address - reinterpret_cast<std::uintptr_t>(place.dli_fbase));
}

// A function that the dynamic linker has no name for, such as a static one, is still told by its
// module and its offset there, which is what a debugger wants.
void writeFunction(std::ostream& stream, void* function) {
    if (function == reinterpret_cast<void*>(SIG_DFL)) {
        stream << "<function>SIG_DFL</function>";
        return;
    }
    if (function == reinterpret_cast<void*>(SIG_IGN)) {
        stream << "<function>SIG_IGN</function>";
        return;
    }
    const auto address = reinterpret_cast<std::uintptr_t>(function);
    Dl_info place = {};
    const bool found = dladdr(function, &place) != 0;
    // Null for a program that was started without even its own name for an argument.
    const bool named = place.dli_fname != nullptr;
    const bool moduleKnown = found && named;  // GCOVR_EXCL_BR_LINE: newer kernels add the name
    stream << "<function>";
    if (moduleKnown && place.dli_sname != nullptr) {
        writePlaceInFunction(stream, address, place);
    } else {
        stream << unknownText;
    }
    stream << "</function><module>";
    if (moduleKnown) {
        writePlaceInModule(stream, address, place);
    } else {
        stream << unknownText;
    }
    stream << "</module>";
}

void writeFlag(std::ostream& stream, const char* name, bool value) {
    stream << '<' << name << '>' << (value ? '1' : '0') << "</" << name << '>';
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const SVSignalHandler& record) {
    SVSignalHandler copy(record);
    const bool threeArguments = (copy.getOSStruct().sa_flags & SA_SIGINFO) != 0;
    stream << "<SVSignalHandler><signalNumber>";
    writeSignedNumber(stream, record.getSignalNumber());
    stream << "</signalNumber><signalName>";
    writeSignalName(stream, record.getSignalNumber());
    stream << "</signalName><arguments>" << (threeArguments ? '3' : '1') << "</arguments>";
    writeFunction(stream, record.getHandlerFunction());
    writeFlag(stream, "preExists", record.preExistsQ());
    writeFlag(stream, "external", record.externalQ());
    writeFlag(stream, "valid", record.validQ());
    return stream << "</SVSignalHandler>";
}

}  // namespace Sorvane
