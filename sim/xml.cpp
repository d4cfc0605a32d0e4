// The programmer's reading of host documents and of patch arithmetic.
#include "engine.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace ravik_sim {

namespace {

bool ieq(const std::string &a, const std::string &b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); i++)
        if (std::tolower((unsigned char)a[i]) != std::tolower((unsigned char)b[i]))
            return false;
    return true;
}

size_t ifind(const std::string &hay, const char *needle, size_t from = 0)
{
    size_t n = std::strlen(needle);
    for (size_t i = from; i + n <= hay.size(); i++)
        if (strncasecmp(hay.data() + i, needle, n) == 0)
            return i;
    return std::string::npos;
}

bool name_char(char c) { return std::isalnum((unsigned char)c) || c == '_' || c == '-' || c == '.' || c == ':'; }

std::string unescape(const std::string &s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        if (s[i] != '&') {
            out += s[i];
            continue;
        }
        size_t semi = s.find(';', i);
        if (semi == std::string::npos) {
            out += s[i];
            continue;
        }
        std::string ent = s.substr(i + 1, semi - i - 1);
        if (ent == "quot")
            out += '"';
        else if (ent == "apos")
            out += '\'';
        else if (ent == "amp")
            out += '&';
        else if (ent == "lt")
            out += '<';
        else if (ent == "gt")
            out += '>';
        else if (ent.size() > 1 && ent[0] == '#') {
            bool hex = ent[1] == 'x' || ent[1] == 'X';
            out += (char)std::strtoul(ent.c_str() + (hex ? 2 : 1), nullptr, hex ? 16 : 10);
        } else {
            out += s[i];
            continue;
        }
        i = semi;
    }
    return out;
}

} // namespace

const std::string *command::get(const std::string &key) const
{
    for (const auto &kv : attrs)
        if (ieq(kv.first, key))
            return &kv.second;
    return nullptr;
}

std::string xml_escape(const std::string &s)
{
    std::string out;
    for (char c : s) {
        switch (c) {
        case '"': out += "&quot;"; break;
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        default: out += c;
        }
    }
    return out;
}

bool parse_command(const std::string &doc, command &out)
{
    out = command{};
    size_t decl = ifind(doc, "<?xml");
    if (decl == std::string::npos)
        return false;
    size_t decl_end = doc.find("?>", decl);
    if (decl_end == std::string::npos)
        return false;
    size_t data = ifind(doc, "<data", decl_end);
    if (data == std::string::npos)
        return false;
    size_t i = doc.find('>', data);
    if (i == std::string::npos)
        return false;
    i++;
    auto ws = [&] {
        while (i < doc.size() && std::isspace((unsigned char)doc[i]))
            i++;
    };
    ws();
    if (i >= doc.size() || doc[i] != '<')
        return false;
    i++;
    size_t start = i;
    while (i < doc.size() && name_char(doc[i]))
        i++;
    out.name = doc.substr(start, i - start);
    if (out.name.empty())
        return false;
    bool closed = false;
    for (;;) {
        ws();
        if (i >= doc.size())
            return false;
        if (doc.compare(i, 2, "/>") == 0) {
            closed = true;
            i += 2;
            break;
        }
        if (doc[i] == '>') {
            i++;
            break;
        }
        start = i;
        while (i < doc.size() && name_char(doc[i]))
            i++;
        if (i == start)
            return false;
        std::string key = doc.substr(start, i - start);
        ws();
        if (i >= doc.size() || doc[i] != '=')
            return false;
        i++;
        ws();
        if (i >= doc.size() || (doc[i] != '"' && doc[i] != '\''))
            return false;
        char q = doc[i++];
        size_t end = doc.find(q, i);
        if (end == std::string::npos)
            return false;
        out.attrs.emplace_back(key, unescape(doc.substr(i, end - i)));
        i = end + 1;
    }
    if (!closed) {
        std::string close = "</" + out.name;
        size_t c = ifind(doc, close.c_str(), i);
        if (c == std::string::npos)
            return false;
        i = doc.find('>', c);
        if (i == std::string::npos)
            return false;
        i++;
    }
    ws();
    return ifind(doc, "</data>", i) == i;
}

namespace {

struct expr_parser {
    const std::string &s;
    const expr_env &env;
    size_t i = 0;
    bool ok = true;

    void ws()
    {
        while (i < s.size() && std::isspace((unsigned char)s[i]))
            i++;
    }
    bool eat(char c)
    {
        ws();
        if (i < s.size() && s[i] == c) {
            i++;
            return true;
        }
        return false;
    }
    bool word(const char *w)
    {
        ws();
        size_t n = std::strlen(w);
        if (s.compare(i, n, w) == 0 &&
            (i + n >= s.size() || !(std::isalnum((unsigned char)s[i + n]) || s[i + n] == '_'))) {
            i += n;
            return true;
        }
        return false;
    }
    int64_t expr()
    {
        int64_t v = term();
        for (;;) {
            if (eat('+'))
                v = (int64_t)((uint64_t)v + (uint64_t)term());
            else if (eat('-'))
                v = (int64_t)((uint64_t)v - (uint64_t)term());
            else
                return v;
        }
    }
    int64_t term()
    {
        int64_t v = factor();
        for (;;) {
            if (eat('*')) {
                v = (int64_t)((uint64_t)v * (uint64_t)factor());
            } else if (eat('/')) {
                int64_t d = factor();
                if (d == 0) {
                    ok = false;
                    return 0;
                }
                v /= d;
            } else {
                return v;
            }
        }
    }
    int64_t factor()
    {
        ws();
        if (eat('(')) {
            int64_t v = expr();
            if (!eat(')'))
                ok = false;
            return v;
        }
        if (eat('-'))
            return (int64_t)(0 - (uint64_t)factor());
        if (word("NUM_DISK_SECTORS"))
            return (int64_t)env.disk_sectors;
        if (word("CRC32")) {
            if (!eat('(')) {
                ok = false;
                return 0;
            }
            int64_t sector = expr();
            if (!eat(',')) {
                ok = false;
                return 0;
            }
            int64_t bytes = expr();
            if (!eat(')') || sector < 0 || bytes < 0 || !env.crc) {
                ok = false;
                return 0;
            }
            uint32_t crc = 0;
            if (!env.crc((uint64_t)sector, (uint64_t)bytes, crc))
                ok = false;
            return crc;
        }
        if (i < s.size() && std::isdigit((unsigned char)s[i])) {
            char *end = nullptr;
            uint64_t v = std::strtoull(s.c_str() + i, &end, 0);
            i = (size_t)(end - s.c_str());
            // Sector numbers in patch files often carry a trailing dot.
            if (i < s.size() && s[i] == '.')
                i++;
            return (int64_t)v;
        }
        ok = false;
        return 0;
    }
};

} // namespace

bool eval_expr(const std::string &text, const expr_env &env, int64_t &out)
{
    expr_parser p{text, env};
    out = p.expr();
    p.ws();
    return p.ok && p.i == text.size();
}

} // namespace ravik_sim
