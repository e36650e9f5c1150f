// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Real faults: memory accesses that the operating system answers with a signal.
#ifndef SORVANE_TESTS_SUPPORT_FAULTS_H
#define SORVANE_TESTS_SUPPORT_FAULTS_H

#include <cstddef>

/// Writes to, or reads from, an address, unseen by the compiler and the sanitizers.
void writeTo(void* address);
char readFrom(const void* address);

/// Uses the stack up.
void overflowStack();

/// A page of memory that may be neither read nor written until it is opened.
class ClosedPage {
public:
    ClosedPage();
    ClosedPage(const ClosedPage&) = delete;
    ClosedPage& operator=(const ClosedPage&) = delete;
    ~ClosedPage();

    void* address() const { return m_address; }

    /// Any context, signal handlers included.
    void open() const noexcept;
    void close() const noexcept;

private:
    void* m_address;
};

/// A page that a file stands behind, which has been cut off there.
class TruncatedFile {
public:
    TruncatedFile();
    TruncatedFile(const TruncatedFile&) = delete;
    TruncatedFile& operator=(const TruncatedFile&) = delete;
    ~TruncatedFile();

    void* address() const { return m_address; }

    /// Makes the file as long as the page again. Any context, signal handlers included.
    void lengthen() const noexcept;

private:
    int m_file;
    void* m_address;
};

#endif
