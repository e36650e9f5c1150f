// Everything a user of the hash tables needs: the table, its entry, its hash function and its
// iterator.
#ifndef SORVANE_PUBLIC_SVHASHTABLE_H
#define SORVANE_PUBLIC_SVHASHTABLE_H

#include "../../datastructures/svhashtable.h"

#endif
