// The whole shared state as a text, and with it what the operating system has installed, so that
// two runs can be compared.
#ifndef SORVANE_TESTS_INTERRUPT_STATE_PICTURE_H
#define SORVANE_TESTS_INTERRUPT_STATE_PICTURE_H

#include <string>

/// How much of the state is compared.
enum class Detail {
    layout,   ///< every slot of every table
    records,  ///< which records there are; tables without records count as none
};

std::string pictureOfState(Detail detail);

#endif
