// Problem files of the optimisation library, as the nonlinear library extends them: it writes
// the same MPS content followed by sections of its own, and reads the MPS part back through
// the same reader.
#pragma once
#include "library_interface/trvo.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace trvo {

// The header line that opens the nonlinear part of a problem file. The optimiser's reader
// refuses a file holding it: the nonlinear part would otherwise be silently dropped.
extern const char* const kNonlinearSection;

// Text to put in front of ENDATA, given the names the file gives the columns and rows (names
// mended so that they hold no blanks, made unique).
using ExtraSections =
    std::function<std::string(const std::vector<std::string>& colnames, const std::vector<std::string>& rownames)>;

// Writes the problem in MPS form as TRVOwriteprob does, except that quadratic rows are left
// to `extra`, whose text goes in front of ENDATA. Throws on failure.
void write_mps_with(TRVOprob prob, const char* filename, const char* flags, const ExtraSections& extra);

// The name of the file TRVOreadprob reads for filename and flags (a name without extension is
// tried as given, then with the format's extensions). Throws when no such file opens.
std::string problem_file_to_read(const char* filename, const char* flags);

// Whether TRVOreadprob reads that file (a name problem_file_to_read gave) in LP format.
bool problem_file_is_lp(const std::string& name, const char* flags);

// A copy of a problem's model, names, results and starts, for undoing a read that fails part
// way (the nonlinear library reads the MPS part first, then its own sections).
struct ModelSnapshot;
std::shared_ptr<ModelSnapshot> snapshot_model(TRVOprob prob);
void restore_model(TRVOprob prob, ModelSnapshot& snapshot);

// The LP-format file of a problem (written by the engine: HiGHS's LP writer drops free rows,
// splits ranged rows and loses unused columns), given its relaxation model m in the user's
// objective sense and the names to write.
struct HighsModel;
std::string lp_file_text(TRVOprob p, const HighsModel& m, const std::vector<std::string>& colnames,
                         const std::vector<std::string>& rownames);
// Applies the comment lines of an LP file that carry ranges and partial-integer limits.
void apply_lp_notes(const std::string& file, trvo_problem_s& target);

}  // namespace trvo
