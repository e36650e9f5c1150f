# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# Usage: cmake -DMARKDOWN=file.md -DOUTPUT=file.cpp -P extract_first_cpp_block.cmake
file(READ "${MARKDOWN}" text)

set(fence "\n```cpp\n")
string(FIND "\n${text}" "${fence}" begin)
if(begin EQUAL -1)
  message(FATAL_ERROR "${MARKDOWN} has no block that begins with ```cpp")
endif()
string(LENGTH "${fence}" fence_length)
math(EXPR begin "${begin} + ${fence_length} - 1")
string(SUBSTRING "${text}" ${begin} -1 text)

string(FIND "${text}" "\n```" end)
if(end EQUAL -1)
  message(FATAL_ERROR "${MARKDOWN}: the first block of C++ is not closed")
endif()
string(SUBSTRING "${text}" 0 ${end} program)
file(WRITE "${OUTPUT}" "${program}\n")
