// Mutations that keep DER in shape: an element is edited, and the lengths of all that enclose it are repaired.
#ifndef PNVTEST_DER_MUTATOR_H
#define PNVTEST_DER_MUTATOR_H

#include "der.h"
#include "random.h"

#include <functional>

namespace pnvtest {

// Changes any octets to others, of at most so many.
using Scramble = std::function<void(Bytes* octets, std::size_t limit)>;

// The input with one element edited: removed, doubled, exchanged with another, replaced by one of the donor's or by a
// telling value of its type, emptied, wrapped, given another tag or a wrong length. The input itself where it holds no
// element. A donor may be the input.
Bytes MutateDer(const Bytes& input, const Bytes& donor, Random& random, const Scramble& scramble);

// The same inside one part of a firmware package, whose header is repaired, or in the table of its header.
Bytes MutatePackage(const Bytes& input, const Bytes& donor, Random& random, const Scramble& scramble);

} // namespace pnvtest

#endif
