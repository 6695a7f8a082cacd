// Solution files of the nonlinear problem, in the optimiser's solution-file format:
//     NAME <problem name>
//     C <column name> <value>
// TSLPwriteslxsol writes the last nonlinear solution (every column of the bound optimisation
// problem); TSLPreadslxsol makes the values of the named columns their initial values, so that
// the next solve starts from them. Names cannot hold spaces here: they are written with '_'.
#include "engine/slp/host.h"
#include "engine/slp/problem.h"
#include "library_interface/trvo.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace slp {
namespace {

std::string slx_name(const char* filename, const std::string& probname) {
    std::string name = filename && *filename ? filename : probname;
    if (name.empty()) throw Error("No file name given");
    size_t slash = name.find_last_of('/'), dot = name.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) name += ".slx";
    return name;
}

std::string probname(TRVOprob trvo) {
    int len = 0;
    if (TRVOgetintattrib(trvo, TRVO_PROBNAMELENGTH, &len) != 0) return "";
    std::vector<char> buf(static_cast<size_t>(len) + 1, '\0');
    if (TRVOgetprobname(trvo, buf.data()) != 0) return "";
    return buf.data();
}

std::vector<std::string> column_names(TRVOprob trvo, int n) {
    std::vector<std::string> names;
    if (n == 0) return names;
    int need = 0;
    if (TRVOgetnamelist(trvo, 2, nullptr, 0, &need, 0, n - 1) != 0) throw Error("Cannot read the column names");
    std::vector<char> buf(static_cast<size_t>(need) + 1);
    if (TRVOgetnamelist(trvo, 2, buf.data(), need + 1, &need, 0, n - 1) != 0) throw Error("Cannot read the column names");
    const char* s = buf.data();
    for (int j = 0; j < n; ++j) {
        std::string t = s;
        s += t.size() + 1;
        for (auto& c : t)
            if (c == ' ' || c == '\t' || c == '\n') c = '_';
        names.push_back(t);
    }
    return names;
}

}  // namespace
}  // namespace slp

using slp::Error;

extern "C" {

int TSLPwriteslxsol(TSLPprob prob, const char* filename, const char*) {
    return slp::guard(prob, [&] {
        slp::check_prob(prob);
        int n = slp::host_cols(prob);
        std::vector<double> x(static_cast<size_t>(n) + 1);
        if (TSLPgetslpsol(prob, x.data(), nullptr, nullptr, nullptr) != 0) throw Error("No nonlinear solution is available");
        std::string pname = slp::probname(prob->trvo);
        std::vector<std::string> names = slp::column_names(prob->trvo, n);
        std::string fn = slp::slx_name(filename, pname);
        FILE* f = std::fopen(fn.c_str(), "w");
        if (!f) throw Error("Could not open " + fn);
        std::fprintf(f, "NAME %s\n", pname.empty() ? "noname" : pname.c_str());
        for (int j = 0; j < n; ++j) std::fprintf(f, "C %s %.17g\n", names[static_cast<size_t>(j)].c_str(), x[static_cast<size_t>(j)]);
        if (std::fclose(f) != 0) throw Error("Could not write " + fn);
    });
}

int TSLPreadslxsol(TSLPprob prob, const char* filename, const char*) {
    return slp::guard(prob, [&] {
        slp::check_prob(prob);
        std::string fn = slp::slx_name(filename, slp::probname(prob->trvo));
        std::ifstream in(fn);
        if (!in) throw Error("Could not open " + fn);
        std::vector<std::pair<int, double>> values;
        std::string line;
        int lineno = 0;
        while (std::getline(in, line)) {
            ++lineno;
            if (line.empty() || line.compare(0, 4, "NAME") == 0 || line[0] == '#') continue;
            std::istringstream ls(line);
            std::string kind, name;
            double v;
            if (!(ls >> kind >> name >> v) || kind != "C")
                throw Error("Invalid line " + std::to_string(lineno) + " in solution file " + fn);
            int col = -1;
            if (TRVOgetindex(prob->trvo, 2, name.c_str(), &col) != 0) throw Error("Unknown column " + name + " in " + fn);
            values.emplace_back(col, v);
        }
        // All names are checked before any initial value changes.
        for (const auto& cv : values)
            if (TSLPchgvar(prob, cv.first, nullptr, nullptr, nullptr, nullptr, nullptr, &cv.second, nullptr, nullptr,
                           nullptr, nullptr, nullptr) != 0)
                throw Error("Cannot set the initial value of column " + std::to_string(cv.first));
    });
}

}  // extern "C"
