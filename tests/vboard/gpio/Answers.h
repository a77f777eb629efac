// SPDX-License-Identifier: MIT
#ifndef VBOARD_GPIO_ANSWERS_H
#define VBOARD_GPIO_ANSWERS_H

#include <string>

/// Asks a GPIO chip with eight free lines, all of them inputs at low level, a long list of
/// questions, most of them wrong, and writes down what it answers: one per line, numbers and errno
/// names only, so that a real kernel and the virtual board can be compared word by word.
std::string gpioAnswers(const std::string& path);

#endif
