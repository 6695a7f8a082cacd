// Sparsity of the Hessian of a compiled formula, and the grouping of its columns into
// structurally orthogonal sets, so that a whole sparse Hessian is read from one gradient
// difference per set instead of one per column.
#pragma once

#include "engine/slp/formula.h"

#include <utility>
#include <vector>

namespace slp {

// Appends the column pairs (i <= j) where the Hessian of node `root` of the tape can be
// non-zero (unsorted, possibly repeated). Returns false, leaving out partly filled, when more
// than `limit` pairs would be produced.
bool hessian_pattern(const Tape& tape, int root, size_t limit, std::vector<std::pair<int, int>>& out);

// A symmetric sparsity pattern on p columns (positions 0..p-1) in compressed form: the
// neighbours of position a (itself included when the diagonal entry can be non-zero) are
// idx[start[a] .. start[a+1]), ascending.
struct SparsePattern {
    std::vector<int> start{0}, idx;
};

// Builds the pattern from pairs of positions (either order, repeats allowed).
SparsePattern make_pattern(int p, std::vector<std::pair<int, int>>& pairs);

// Colours the positions so that no two of one colour share a neighbour or neighbour each
// other: then H e_S (S one colour) has, in row a, the single entry H(a, b) of the one b in S
// that a neighbours. Returns the number of colours; colour[a] is filled.
int colour_columns(const SparsePattern& P, std::vector<int>& colour);

}  // namespace slp
