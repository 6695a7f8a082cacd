// Reading MPS files: the engine's own reader for the linear and mixed-integer sections, and the
// sections HiGHS does not know (SOS, INDICATORS, PARTIALINTEGER, FREEROWS, GENCONS, PWLCONS),
// which both the engine's reader and the HiGHS path (for files with quadratic sections) collect
// into EntitySections and resolve against the names read.
#pragma once
#include "engine/optimizer/problem.h"

#include <string>
#include <vector>

namespace trvo {

struct SosEntry {
    std::string set, col;
    double weight;
};
struct SosHeader {
    std::string name;
    char type;
};
struct IndicatorEntry {
    std::string row, col;
    int value;
};
struct PartialEntry {
    std::string col;
    double limit;
};
// A free row is written as a G row with this right-hand side (and listed under FREEROWS).
constexpr double kFreeRowBound = -1e19;
struct EntitySections {
    std::vector<SosHeader> sets;
    std::vector<SosEntry> members;
    std::vector<IndicatorEntry> indicators;
    std::vector<PartialEntry> partial;
    std::vector<std::string> free_rows;
    std::vector<std::vector<std::string>> gencons;  // lines of GENCONS and PWLCONS, as tokens
    bool any = false;
};

enum class EntitySection { kNone, kSos, kIndicators, kPartial, kFree, kGencons };
// The engine section a header word opens (kNone: not one of them).
EntitySection entity_section_of(const std::string& word);
// Takes one data line (as tokens) of an engine section into `found`; throws on a line of the
// wrong form. `where` names the file (and line) in messages.
void entity_line(EntitySection section, const std::vector<std::string>& tokens, const std::string& line,
                 const std::string& where, EntitySections& found);
// Resolves the sections' names against the columns and rows read.
void load_entity_sections(const EntitySections& found, trvo_problem_s& target);

// Row i of target from its bounds (row type, right-hand side and range as the store keeps them).
void store_row_bounds(trvo_problem_s& target, size_t i, double lo, double up);

enum class MpsRead {
    kDone,      // target holds the file's model, names and (in `found`) its engine sections
    kUseHighs,  // the file needs HiGHS's reader: quadratic sections, an OBJNAME section, names
                // given twice, or fixed-format names holding blanks; target is left half-filled
};
// Reads an MPS file (free or fixed format) into an empty target. Throws with the file name and
// line number when the file is malformed. On kUseHighs, `why` holds the message to give when
// HiGHS cannot read the file either ("" when the file looked well-formed).
MpsRead read_mps_file(const std::string& file, trvo_problem_s& target, EntitySections& found, std::string& why);

}  // namespace trvo
