// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// What the demo prints, and how it ends when something is not as it must be.
#ifndef DEMO_REPORT_H
#define DEMO_REPORT_H

#include <string>

namespace demo {

/// The status of the process that tells the story, to its end or up to a failure. Neither is 0:
/// that is what the library ends a process with, and it must not look like success.
constexpr int storyTold = 10;
constexpr int storyFailed = 11;

/// Has to be called once, before the story's process is started.
void openReport();

/// Begins a numbered section. The pointer is kept, so that the process that watches over the story
/// can say where it ended.
void section(const char* title);
const char* currentSection();

/// Prints one indented line.
void say(const std::string& line);

/// Prints what is so, or ends the story when it is not.
void confirm(bool isSo, const std::string& statement);

/// Ends the story when something is not so that needs no line of its own when it is.
void require(bool isSo, const std::string& otherwise);

/// Prints why the story can't go on, and ends its process.
[[noreturn]] void fail(const std::string& reason);

/// Prints markup, folded to a width that a terminal has.
void sayFolded(const std::string& markup);

}  // namespace demo

#endif
