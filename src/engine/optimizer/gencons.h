// General constraints (max, min, and, or, abs) and piecewise-linear constraints: their
// reformulation into binaries and linear rows for HiGHS, their upkeep when columns are deleted,
// and their text form in problem files.
#pragma once

#include "engine/optimizer/problem.h"
#include "interfaces/highs_c_api.h"

#include <string>
#include <vector>

namespace trvo {

// The parts of a model under construction that the reformulation extends: columns (cost,
// bounds with +-kInf for none, integrality) are appended to the vectors; rows are appended to
// `rows` (the rows after the user's) with their bounds appended to rlo/rup (which hold the
// bounds of all rows).
struct ModelParts {
    std::vector<double>& cost;
    std::vector<double>& lo;
    std::vector<double>& up;
    std::vector<HighsInt>& integ;
    std::vector<std::vector<std::pair<int, double>>>& rows;
    std::vector<double>& rlo;
    std::vector<double>& rup;
};

// True when the problem has general or piecewise-linear constraints.
bool has_gencons(TRVOprob p);
// Adds the binaries, auxiliary columns and rows that enforce every general and piecewise-linear
// constraint, and tightens the bounds of their columns where the constraints imply it. Fails,
// naming the column, when a bound the formulation needs is infinite.
void formulate_gencons(TRVOprob p, ModelParts m);
// After a column deletion (newidx: new index of each old column, -1 deleted).
void gencons_delete_cols(TRVOprob p, const std::vector<int>& newidx);

// Text form in problem files, one entry per line (cn: the column names as the file writes them):
//   GENCONS                    PWLCONS
//    <MAX|MIN|AND|OR|ABS> <resultant>    PWL <column> <resultant>
//    COL <column>                        POINT <x> <y>
//    VAL <value>
// Section headers start in the first position, entries with a blank. MPS files carry the lines
// as they are; LP files carry them in comment lines "\ gencons: <line>".
std::vector<std::string> gencons_file_lines(TRVOprob p, const std::vector<std::string>& cn);
// Whether an MPS section header opens one of these sections.
bool is_gencons_section(const std::string& header);
// Loads the lines (as tokens, headers included) into target, whose columns and names are read.
void gencons_from_file_lines(const std::vector<std::vector<std::string>>& lines, trvo_problem_s& target);
// The tag of the LP comment lines.
extern const char* const kGenconsLpTag;

}  // namespace trvo
