// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "report.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <sstream>

#include "process.h"

namespace demo {

namespace {

constexpr std::size_t width = 96;

std::atomic<const char*>* place = nullptr;
unsigned int sections = 0;

std::string expandTabs(const std::string& line) {
    std::string result;
    for (const char character : line) {
        if (character == '\t') {
            result += "  ";
        } else {
            result += character;
        }
    }
    return result;
}

// The last opening tag that begins within the width, or nothing.
std::size_t placeToFold(const std::string& line, std::size_t indentation) {
    for (std::size_t i = width; i > indentation; --i) {
        if (line[i] == '<' && line[i + 1] != '/') {
            return i;
        }
    }
    return std::string::npos;
}

void printFoldedLine(std::string line) {
    const std::string deeper(line.find_first_not_of(' ') + 4, ' ');
    while (line.size() > width) {
        const std::size_t fold = placeToFold(line, deeper.size());
        if (fold == std::string::npos) {
            break;
        }
        std::printf("%s\n", line.substr(0, fold).c_str());
        line = deeper + line.substr(fold);
    }
    std::printf("%s\n", line.c_str());
}

}  // namespace

void openReport() {
    place = makeShared<std::atomic<const char*>>();
    if (place == nullptr) {
        std::fprintf(stderr, "FAILED: no shared memory\n");
        _exit(1);
    }
    place->store("before the beginning");
}

void section(const char* title) {
    place->store(title);
    ++sections;
    std::printf("\n%u. %s\n\n", sections, title);
}

const char* currentSection() {
    return place->load();
}

void say(const std::string& line) {
    std::printf("%s%s\n", line.empty() ? "" : "   ", line.c_str());
}

void confirm(bool isSo, const std::string& statement) {
    require(isSo, "not so: " + statement);
    say("ok  " + statement);
}

void require(bool isSo, const std::string& otherwise) {
    if (!isSo) {
        fail(otherwise);
    }
}

void fail(const std::string& reason) {
    std::fflush(stdout);
    std::fprintf(stderr, "FAILED in \"%s\": %s\n", currentSection(), reason.c_str());
    _exit(storyFailed);
}

void sayFolded(const std::string& markup) {
    std::istringstream lines(markup);
    std::string line;
    while (std::getline(lines, line)) {
        printFoldedLine(line.empty() ? line : "   " + expandTabs(line));
    }
}

}  // namespace demo
