// Conversions between the forms of a formula: postfix tokens, infix tokens and text. All go
// through a small syntax tree, so that argument order, brackets and precedence are handled
// in one place.
#include "engine/slp/formula.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace slp {

namespace {

enum AstKind { A_CON, A_COL, A_BIN, A_NEG, A_IFUN, A_UFUN };

struct Ast {
    int kind = A_CON;
    double v = 0.0;   // constant, column, operator, function number or user-function index
    std::vector<Ast> kids;
};

bool multi_arg(int fun) { return fun == TSLP_FUN_MIN || fun == TSLP_FUN_MAX || fun == TSLP_FUN_PWL; }

// ---- postfix <-> tree

Ast from_postfix(const Tokens& t) {
    std::vector<Ast> st;
    std::vector<size_t> marks;
    auto pop = [&]() {
        if (st.empty()) throw Error("Formula has an operator without enough operands");
        Ast a = std::move(st.back());
        st.pop_back();
        return a;
    };
    auto marked = [&](bool reversed) {
        if (marks.empty() || marks.back() > st.size())
            throw Error("Function without its argument list in formula");
        std::vector<Ast> ops(std::make_move_iterator(st.begin() + marks.back()),
                             std::make_move_iterator(st.end()));
        st.resize(marks.back());
        marks.pop_back();
        if (reversed) std::reverse(ops.begin(), ops.end());
        return ops;
    };
    for (size_t i = 0; i < t.type.size(); ++i) {
        int type = t.type[i];
        double v = t.value[i];
        if (type == TSLP_TOK_EOF) break;
        Ast a;
        a.v = v;
        switch (type) {
        case TSLP_TOK_CON: a.kind = A_CON; st.push_back(a); break;
        case TSLP_TOK_COL:
            if (v < 0 || v != std::floor(v)) throw Error("Invalid column in formula");
            a.kind = A_COL;
            st.push_back(a);
            break;
        case TSLP_TOK_LB: marks.push_back(st.size()); break;
        case TSLP_TOK_OP:
            if ((int)v == TSLP_OP_UMINUS) {
                a.kind = A_NEG;
                a.kids.push_back(pop());
            } else {
                if ((int)v < TSLP_OP_POWER || (int)v > TSLP_OP_MINUS)
                    throw Error("Unknown operator in formula");
                a.kind = A_BIN;
                Ast b = pop();
                a.kids.push_back(pop());
                a.kids.push_back(std::move(b));
            }
            st.push_back(std::move(a));
            break;
        case TSLP_TOK_IFUN: {
            int fun = (int)v;
            if (!fun_name(fun)) throw Error("Unknown internal function " + std::to_string(fun) + " in formula");
            a.kind = A_IFUN;
            if (multi_arg(fun)) {
                a.kids = marked(fun == TSLP_FUN_PWL);
                if (a.kids.empty()) throw Error(std::string(fun_name(fun)) + " needs arguments");
            } else {
                if (!marks.empty() && marks.back() + 1 == st.size()) marks.pop_back();
                a.kids.push_back(pop());
            }
            st.push_back(std::move(a));
            break;
        }
        case TSLP_TOK_UFUN:
            a.kind = A_UFUN;
            a.kids = marked(true);
            st.push_back(std::move(a));
            break;
        default:
            throw Error("Token type " + std::to_string(type) + " not allowed in a parsed formula");
        }
    }
    if (st.size() != 1 || !marks.empty()) throw Error("Formula is not well formed");
    return std::move(st.back());
}

void push(Tokens& t, int type, double v) {
    t.type.push_back(type);
    t.value.push_back(v);
}

void to_postfix(const Ast& a, Tokens& out) {
    switch (a.kind) {
    case A_CON: push(out, TSLP_TOK_CON, a.v); break;
    case A_COL: push(out, TSLP_TOK_COL, a.v); break;
    case A_BIN:
        to_postfix(a.kids[0], out);
        to_postfix(a.kids[1], out);
        push(out, TSLP_TOK_OP, a.v);
        break;
    case A_NEG:
        to_postfix(a.kids[0], out);
        push(out, TSLP_TOK_OP, TSLP_OP_UMINUS);
        break;
    case A_IFUN:
    case A_UFUN: {
        push(out, TSLP_TOK_LB, 0);
        bool rev = a.kind == A_UFUN || (int)a.v == TSLP_FUN_PWL;
        if (rev)
            for (size_t k = a.kids.size(); k-- > 0;) to_postfix(a.kids[k], out);
        else
            for (auto& k : a.kids) to_postfix(k, out);
        push(out, a.kind == A_UFUN ? TSLP_TOK_UFUN : TSLP_TOK_IFUN, a.v);
        break;
    }
    }
}

// ---- infix tokens -> tree (recursive descent)

struct InfixParser {
    const Tokens& t;
    size_t i = 0;
    explicit InfixParser(const Tokens& tk) : t(tk) {}
    int type() const { return i < t.type.size() ? t.type[i] : TSLP_TOK_EOF; }
    double val() const { return i < t.value.size() ? t.value[i] : 0.0; }
    bool is_op(int op) const { return type() == TSLP_TOK_OP && (int)val() == op; }

    Ast expr() {
        Ast left = term();
        while (is_op(TSLP_OP_PLUS) || is_op(TSLP_OP_MINUS)) {
            Ast b;
            b.kind = A_BIN;
            b.v = val();
            ++i;
            b.kids.push_back(std::move(left));
            b.kids.push_back(term());
            left = std::move(b);
        }
        return left;
    }
    Ast term() {
        Ast left = unary();
        while (is_op(TSLP_OP_MULTIPLY) || is_op(TSLP_OP_DIVIDE)) {
            Ast b;
            b.kind = A_BIN;
            b.v = val();
            ++i;
            b.kids.push_back(std::move(left));
            b.kids.push_back(unary());
            left = std::move(b);
        }
        return left;
    }
    Ast unary() {
        if (is_op(TSLP_OP_MINUS) || is_op(TSLP_OP_UMINUS)) {
            ++i;
            Ast a;
            a.kind = A_NEG;
            a.kids.push_back(unary());
            return a;
        }
        if (is_op(TSLP_OP_PLUS)) {
            ++i;
            return unary();
        }
        return power();
    }
    Ast power() {
        Ast base = primary();
        if (is_op(TSLP_OP_POWER)) {
            ++i;
            Ast b;
            b.kind = A_BIN;
            b.v = TSLP_OP_POWER;
            b.kids.push_back(std::move(base));
            b.kids.push_back(unary());
            return b;
        }
        return base;
    }
    Ast primary() {
        Ast a;
        switch (type()) {
        case TSLP_TOK_CON: a.kind = A_CON; a.v = val(); ++i; return a;
        case TSLP_TOK_COL:
            if (val() < 0) throw Error("Invalid column in formula");
            a.kind = A_COL;
            a.v = val();
            ++i;
            return a;
        case TSLP_TOK_LB: {
            ++i;
            Ast e = expr();
            if (type() != TSLP_TOK_RB) throw Error("Missing right bracket in formula");
            ++i;
            return e;
        }
        case TSLP_TOK_IFUN:
        case TSLP_TOK_UFUN: {
            a.kind = type() == TSLP_TOK_IFUN ? A_IFUN : A_UFUN;
            a.v = val();
            if (a.kind == A_IFUN && !fun_name((int)a.v)) throw Error("Unknown internal function in formula");
            ++i;
            if (type() != TSLP_TOK_LB) throw Error("Function without its argument list in formula");
            ++i;
            if (type() != TSLP_TOK_RB) {
                a.kids.push_back(expr());
                while (type() == TSLP_TOK_DEL) {
                    ++i;
                    a.kids.push_back(expr());
                }
            }
            if (type() != TSLP_TOK_RB) throw Error("Missing right bracket after function arguments");
            ++i;
            check_arity(a);
            return a;
        }
        }
        throw Error("Unexpected token in formula");
    }
    static void check_arity(const Ast& a) {
        if (a.kind != A_IFUN) return;
        int fun = (int)a.v;
        size_t n = a.kids.size();
        if (fun == TSLP_FUN_PWL) {
            if (n < 3 || n % 2 == 0) throw Error("PWL needs a variable and at least one breakpoint (x, y)");
        } else if (multi_arg(fun)) {
            if (n == 0) throw Error(std::string(fun_name(fun)) + " needs arguments");
        } else if (n != 1) {
            throw Error(std::string(fun_name(fun)) + " takes one argument");
        }
    }
    Ast all() {
        Ast a = expr();
        if (type() != TSLP_TOK_EOF) throw Error("Unexpected token after the end of the formula");
        return a;
    }
};

// ---- tree -> infix tokens / text

int prec(const Ast& a) {
    if (a.kind == A_BIN) {
        int op = (int)a.v;
        return op == TSLP_OP_PLUS || op == TSLP_OP_MINUS ? 1 : op == TSLP_OP_POWER ? 4 : 2;
    }
    if (a.kind == A_NEG || (a.kind == A_CON && std::signbit(a.v))) return 3;
    return 5;
}

bool needs_brackets(const Ast& parent, const Ast& child, bool right) {
    int p = prec(parent), c = prec(child);
    int op = (int)parent.v;
    if (parent.kind == A_NEG) return c < 3 || c == 3;   // -(a+b), -(-a)
    if (c == 3) return true;                              // a*(-b), a^(-b), a-(-b)
    if (op == TSLP_OP_POWER) return right ? c < 4 : c <= 4;
    if (c < p) return true;
    if (right && c == p && (op == TSLP_OP_MINUS || op == TSLP_OP_DIVIDE)) return true;
    return false;
}

void to_infix(const Ast& a, Tokens& out) {
    auto child = [&](const Ast& k, bool right) {
        bool br = needs_brackets(a, k, right);
        if (br) push(out, TSLP_TOK_LB, 0);
        to_infix(k, out);
        if (br) push(out, TSLP_TOK_RB, 0);
    };
    switch (a.kind) {
    case A_CON:
        if (std::signbit(a.v)) {
            push(out, TSLP_TOK_OP, TSLP_OP_UMINUS);
            push(out, TSLP_TOK_CON, -a.v);
        } else {
            push(out, TSLP_TOK_CON, a.v);
        }
        break;
    case A_COL: push(out, TSLP_TOK_COL, a.v); break;
    case A_BIN:
        child(a.kids[0], false);
        push(out, TSLP_TOK_OP, a.v);
        child(a.kids[1], true);
        break;
    case A_NEG:
        push(out, TSLP_TOK_OP, TSLP_OP_UMINUS);
        child(a.kids[0], false);
        break;
    case A_IFUN:
    case A_UFUN:
        push(out, a.kind == A_UFUN ? TSLP_TOK_UFUN : TSLP_TOK_IFUN, a.v);
        push(out, TSLP_TOK_LB, 0);
        for (size_t k = 0; k < a.kids.size(); ++k) {
            if (k) push(out, TSLP_TOK_DEL, 0);
            to_infix(a.kids[k], out);
        }
        push(out, TSLP_TOK_RB, 0);
        break;
    }
}

std::string number_text(double v) {
    char buf[64];
    for (int digits = 15; digits <= 17; ++digits) {
        std::snprintf(buf, sizeof buf, "%.*g", digits, v);
        if (std::strtod(buf, nullptr) == v) break;
    }
    return buf;
}

const char* op_text(int op) {
    switch (op) {
    case TSLP_OP_UMINUS: return "-";
    case TSLP_OP_POWER: return " ^ ";
    case TSLP_OP_MULTIPLY: return " * ";
    case TSLP_OP_DIVIDE: return " / ";
    case TSLP_OP_PLUS: return " + ";
    case TSLP_OP_MINUS: return " - ";
    }
    return " ? ";
}

}  // namespace

Tokens normalise_postfix(const Tokens& t) {
    Tokens out;
    to_postfix(from_postfix(t), out);
    push(out, TSLP_TOK_EOF, 0);
    return out;
}

Tokens infix_to_postfix(const Tokens& infix) {
    InfixParser p(infix);
    Ast a = p.all();
    Tokens out;
    to_postfix(a, out);
    push(out, TSLP_TOK_EOF, 0);
    return out;
}

Tokens postfix_to_infix(const Tokens& t) {
    Tokens out;
    to_infix(from_postfix(t), out);
    push(out, TSLP_TOK_EOF, 0);
    return out;
}

Tokens parse_text(const std::string& text, const std::function<int(const std::string&)>& resolve_col,
                  const std::function<int(const std::string&)>& resolve_ufun) {
    Tokens infix;
    size_t i = 0, n = text.size();
    while (i < n) {
        unsigned char c = text[i];
        if (std::isspace(c)) {
            ++i;
            continue;
        }
        if (std::isdigit(c) || (c == '.' && i + 1 < n && std::isdigit((unsigned char)text[i + 1]))) {
            char* end = nullptr;
            double v = std::strtod(text.c_str() + i, &end);
            push(infix, TSLP_TOK_CON, v);
            i = end - text.c_str();
            continue;
        }
        if (std::isalpha(c) || c == '_') {
            size_t j = i;
            while (j < n && (std::isalnum((unsigned char)text[j]) || text[j] == '_' || text[j] == '.')) ++j;
            std::string name = text.substr(i, j - i);
            size_t k = j;
            while (k < n && std::isspace((unsigned char)text[k])) ++k;
            bool call = k < n && text[k] == '(';
            i = j;
            if (call) {
                std::string upper = name;
                for (auto& ch : upper) ch = (char)std::toupper((unsigned char)ch);
                int fun = fun_by_name(upper);
                if (fun) {
                    push(infix, TSLP_TOK_IFUN, fun);
                    continue;
                }
                int uf = resolve_ufun(name);
                if (uf > 0) {
                    push(infix, TSLP_TOK_UFUN, uf);
                    continue;
                }
                throw Error("Unknown function " + name + " in formula");
            }
            int col = resolve_col(name);
            if (col < 0) throw Error("Unknown column " + name + " in formula");
            push(infix, TSLP_TOK_COL, col);
            continue;
        }
        if (c == '"') {
            // A quoted column name: any characters, with \" and \\ standing for " and \.
            std::string name;
            size_t j = i + 1;
            for (; j < n && text[j] != '"'; ++j) {
                if (text[j] == '\\' && j + 1 < n) ++j;
                name.push_back(text[j]);
            }
            if (j >= n) throw Error("Unterminated quoted name in formula");
            int col = resolve_col(name);
            if (col < 0) throw Error("Unknown column " + name + " in formula");
            push(infix, TSLP_TOK_COL, col);
            i = j + 1;
            continue;
        }
        switch (c) {
        case '+': push(infix, TSLP_TOK_OP, TSLP_OP_PLUS); break;
        case '-': push(infix, TSLP_TOK_OP, TSLP_OP_MINUS); break;
        case '*':
            if (i + 1 < n && text[i + 1] == '*') {
                push(infix, TSLP_TOK_OP, TSLP_OP_POWER);
                ++i;
            } else {
                push(infix, TSLP_TOK_OP, TSLP_OP_MULTIPLY);
            }
            break;
        case '/': push(infix, TSLP_TOK_OP, TSLP_OP_DIVIDE); break;
        case '^': push(infix, TSLP_TOK_OP, TSLP_OP_POWER); break;
        case '(': push(infix, TSLP_TOK_LB, 0); break;
        case ')': push(infix, TSLP_TOK_RB, 0); break;
        case ',': push(infix, TSLP_TOK_DEL, 0); break;
        default: throw Error(std::string("Unexpected character '") + (char)c + "' in formula");
        }
        ++i;
    }
    if (infix.type.empty()) throw Error("Empty formula");
    return infix_to_postfix(infix);
}

std::string name_in_formula(const std::string& name) {
    bool plain = !name.empty() && (std::isalpha((unsigned char)name[0]) || name[0] == '_');
    for (size_t i = 1; plain && i < name.size(); ++i)
        plain = std::isalnum((unsigned char)name[i]) || name[i] == '_' || name[i] == '.';
    if (plain) return name;
    std::string q = "\"";
    for (char ch : name) {
        if (ch == '"' || ch == '\\') q.push_back('\\');
        q.push_back(ch);
    }
    q.push_back('"');
    return q;
}

std::string print_text(const Tokens& postfix, const std::function<std::string(int)>& col_name,
                       const std::function<std::string(int)>& ufun_name) {
    Tokens in = postfix_to_infix(postfix);
    std::string s;
    for (size_t i = 0; i < in.type.size(); ++i) {
        double v = in.value[i];
        switch (in.type[i]) {
        case TSLP_TOK_CON: s += number_text(v); break;
        case TSLP_TOK_COL: s += name_in_formula(col_name((int)v)); break;
        case TSLP_TOK_IFUN: s += fun_name((int)v); break;
        case TSLP_TOK_UFUN: s += ufun_name((int)v); break;
        case TSLP_TOK_LB: s += "("; break;
        case TSLP_TOK_RB: s += ")"; break;
        case TSLP_TOK_DEL: s += ", "; break;
        case TSLP_TOK_OP: s += op_text((int)v); break;
        }
    }
    return s;
}

}  // namespace slp
