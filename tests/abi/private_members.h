// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

// Private members, by pointers to them. Access is not checked in an explicit instantiation, so a
// template can be handed such a pointer there, and hands it on.
#ifndef SORVANE_TESTS_ABI_PRIVATE_MEMBERS_H
#define SORVANE_TESTS_ABI_PRIVATE_MEMBERS_H

#include <cstddef>

/// The distance of a member from its object's beginning, in bytes.
template <typename Class, typename Member>
std::size_t offsetOf(const Class& object, Member Class::*member) {
    const void* const place = &(object.*member);
    return static_cast<std::size_t>(static_cast<const char*>(place) -
                                    static_cast<const char*>(static_cast<const void*>(&object)));
}

template <typename Name, auto member>
struct Revealed {
    friend constexpr auto memberOf(Name) { return member; }
};

/// Makes memberOf(name()) a pointer to a private member.
#define REVEAL_MEMBER(name, Class, member)    \
    struct name {                             \
        friend constexpr auto memberOf(name); \
    };                                        \
    template struct Revealed<name, &Class::member>

#endif
