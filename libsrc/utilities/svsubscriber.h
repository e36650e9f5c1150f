// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Whom a subscription calls.
#ifndef SORVANE_SVSUBSCRIBER_H
#define SORVANE_SVSUBSCRIBER_H

namespace Sorvane {

/// A handler in one of three forms, and what the longest one gets beside the signal.
struct SVSubscriber {
    enum class Form { simple, information, user };
    using Function = void (*)();

    Form form;
    Function function;
    void* user;  ///< null for the other forms
};

}  // namespace Sorvane

#endif
