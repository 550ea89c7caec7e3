// docs/ci.md against the code: the worked session runs as written, the live
// table names the handlers the command table holds, the keys each handler
// reads and the exact data it returns, and the rows said to be waiting
// answer 0x8208005A while the live ones do not.
#if defined(__GNUC__) && !defined(__clang__)
// libstdc++'s <regex> trips a false -Wmaybe-uninitialized in sanitizer builds.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ci_support.hpp"

namespace {

using ci_test::Ci;
using ci_test::Reply;

std::string ReadText(const std::string &relative) {
  std::ifstream in(std::string(ZEPH_SOURCE_DIR) + "/" + relative);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The lines of one "## " section of the document.
std::vector<std::string> Section(const std::string &doc, const std::string &title) {
  std::vector<std::string> out;
  bool inside = false;
  for (const auto &line : Lines(doc)) {
    if (line.rfind("## ", 0) == 0)
      inside = line == "## " + title;
    else if (inside)
      out.push_back(line);
  }
  return out;
}

struct LiveRow {
  int code;
  std::string handler;
  std::set<std::string> reads;
  std::string data;  // pattern of the data text; empty: no data
};

std::map<int, LiveRow> LiveTable(const std::string &doc) {
  std::map<int, LiveRow> rows;
  const std::regex row(R"(^\| (\d+) \| `(\w+)` \| ([^|]*) \| (.*) \|$)");
  const std::regex key("`(\\w+)`");
  for (const auto &line : Section(doc, "Commands that work now")) {
    std::smatch m;
    if (!std::regex_match(line, m, row)) continue;
    LiveRow r{std::stoi(m[1]), m[2], {}, {}};
    const std::string reads = m[3];
    for (std::sregex_iterator it(reads.begin(), reads.end(), key), end; it != end; ++it) r.reads.insert((*it)[1]);
    const std::string data = m[4];
    if (data.rfind("—", 0) != 0) {
      const size_t a = data.find('`');
      const size_t b = data.find('`', a + 1);
      EXPECT_TRUE(a == 0 && b != std::string::npos) << "data column without a `pattern`: " << line;
      if (a == 0 && b != std::string::npos) r.data = data.substr(1, b - 1);
    }
    rows[r.code] = r;
  }
  return rows;
}

// The command table as the source writes it: {code, handler}.
std::map<int, std::string> SourceTable() {
  std::map<int, std::string> table;
  const std::string src = ReadText("src/ci/zeph_c_ci.cpp");
  const std::regex row(R"(\{(\d+), (l_\w+)\})");
  for (std::sregex_iterator it(src.begin(), src.end(), row), end; it != end; ++it) {
    table[std::stoi((*it)[1])] = (*it)[2];
  }
  return table;
}

// Every key the parser knows.
std::set<std::string> ParserKeys() {
  std::set<std::string> keys;
  const std::string src = ReadText("src/ci/ci_request.cpp");
  const std::regex literal("\"(\\w+)\"");
  for (std::sregex_iterator it(src.begin(), src.end(), literal), end; it != end; ++it) keys.insert((*it)[1]);
  return keys;
}

std::string Escape(const std::string &text) {
  static const std::string kSpecial = R"(\^$.|?*+()[]{})";
  std::string out;
  for (char c : text) {
    if (kSpecial.find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

// A documented text with <placeholders> as a regular expression. Known
// values are literal; <name=base64> captures into names, in order.
std::string Pattern(const std::string &templ, const std::map<std::string, std::string> &vars,
                    std::vector<std::string> *names, bool quoted) {
  std::string out;
  size_t i = 0;
  while (i < templ.size()) {
    const size_t open = templ.find('<', i);
    const size_t close = open == std::string::npos ? std::string::npos : templ.find('>', open);
    if (close == std::string::npos) {
      out += Escape(templ.substr(i));
      break;
    }
    out += Escape(templ.substr(i, open - i));
    std::string name = templ.substr(open + 1, close - open - 1);
    std::string kind = name;
    if (const size_t eq = name.find('='); eq != std::string::npos) {
      kind = name.substr(eq + 1);
      if (names != nullptr) names->push_back(name.substr(0, eq));
    }
    std::string cls;
    if (kind == "n")
      cls = "-?[0-9]+";
    else if (kind == "base64")
      cls = "[A-Za-z0-9+/=]+";
    else if (kind == "text")
      cls = quoted ? R"([^"\\]*)" : R"([^"]*)";
    else if (kind == "json")
      cls = ".*";
    if (vars.count(name) != 0) {
      out += Escape(vars.at(name));
    } else if (!cls.empty()) {
      out += (kind == name ? "(?:" : "(") + cls + ")";
    } else {
      out += Escape("<" + name + ">");
    }
    i = close + 1;
  }
  return out;
}

struct Step {
  std::string request;   // as documented
  std::string response;  // as documented
  Reply actual;
  std::string sent;
};

class CiDocs : public ci_test::SoftKeyCi {
 protected:
  void SetUp() override {
    SoftKeyCi::SetUp();
    AddRsaArea();
    doc_ = ReadText("docs/ci.md");
    ASSERT_FALSE(doc_.empty());
    vars_ = {{"keySN", kKeySN},       {"pin", kUserPin},
             {"adminPin", kAdminPin}, {"authCode", kAuthCode},
             {"cert", cert_b64_},     {"rsaCert", ci_test::Base64(Certificate("VorliRsa", "RSA1"))}};
  }

  // Runs the worked session; every response must match its line.
  std::vector<Step> RunSession() {
    std::vector<Step> steps;
    for (const auto &line : Section(doc_, "Worked session")) {
      if (line.rfind("> ", 0) == 0) {
        steps.push_back({line.substr(2), {}, {}, {}});
      } else if (line.rfind("< ", 0) == 0) {
        EXPECT_FALSE(steps.empty() || !steps.back().response.empty()) << "response without request: " << line;
        if (!steps.empty()) steps.back().response = line.substr(2);
      }
    }
    for (auto &step : steps) {
      std::vector<std::string> names;
      std::string sent = step.request;
      for (const auto &[name, value] : vars_) {
        const std::string tag = "<" + name + ">";
        for (size_t at = sent.find(tag); at != std::string::npos; at = sent.find(tag, at + value.size())) {
          sent.replace(at, tag.size(), value);
        }
      }
      step.sent = sent;
      step.actual = Ci(sent);
      const std::string pattern = Pattern(step.response, vars_, &names, true);
      std::smatch m;
      const bool ok = std::regex_match(step.actual.text, m, std::regex(pattern));
      EXPECT_TRUE(ok) << "request  " << sent << "\nexpected " << step.response << "\ngot      " << step.actual.text;
      for (size_t k = 0; ok && k < names.size(); ++k) vars_[names[k]] = m[k + 1];
    }
    return steps;
  }

  std::string doc_;
  std::map<std::string, std::string> vars_;
};

std::set<std::string> KeysOf(const std::string &request) {
  std::set<std::string> keys;
  cJSON *doc = cJSON_Parse(request.c_str());
  const cJSON *item = nullptr;
  cJSON_ArrayForEach(item, doc) keys.insert(item->string);
  cJSON_Delete(doc);
  keys.erase("type");
  return keys;
}

TEST_F(CiDocs, SessionRunsAndTheLiveTableMatchesTheHandlers) {
  const auto live = LiveTable(doc_);
  ASSERT_EQ(live.size(), 16u) << "live rows found in docs/ci.md";
  const auto table = SourceTable();
  ASSERT_EQ(table.size(), 71u);
  const auto parser_keys = ParserKeys();
  const auto steps = RunSession();
  ASSERT_GE(steps.size(), 30u);

  for (const auto &[code, row] : live) {
    ASSERT_EQ(table.count(code), 1u) << code;
    EXPECT_EQ(row.handler, table.at(code)) << code;
    for (const auto &key : row.reads) EXPECT_EQ(parser_keys.count(key), 1u) << code << " reads unknown key " << key;

    std::set<std::string> used;
    int successes = 0;
    for (const auto &step : steps) {
      if (step.actual.type != code) continue;
      for (const auto &key : KeysOf(step.sent)) used.insert(key);
      if (step.actual.code != 0) continue;
      ++successes;
      EXPECT_EQ(step.actual.has_data, !row.data.empty()) << step.actual.text;
      if (!row.data.empty() && step.actual.has_data) {
        EXPECT_TRUE(std::regex_match(step.actual.data, std::regex(Pattern(row.data, vars_, nullptr, false))))
            << code << ": data " << step.actual.data << " against " << row.data;
      }
    }
    EXPECT_GT(successes, 0) << code << " never succeeds in the session";
    EXPECT_EQ(used, row.reads) << code << ": keys used in the session differ from the Reads column";
  }
}

TEST_F(CiDocs, WaitingRowsAnswerUnsupportedAndLiveRowsDoNot) {
  const auto live = LiveTable(doc_);
  const auto table = SourceTable();
  // The sentence listing the waiting rows: "A to B" ranges and single codes.
  std::set<int> waiting;
  const auto section = Section(doc_, "Commands that work now");
  std::string text;
  for (const auto &line : section) text += line + " ";
  const size_t from = text.find("until their operations land:");
  ASSERT_NE(from, std::string::npos);
  const std::string list = text.substr(from, text.find('.', from) - from);
  const std::regex item(R"((\d+)(?: to (\d+))?)");
  for (std::sregex_iterator it(list.begin(), list.end(), item), end; it != end; ++it) {
    const int a = std::stoi((*it)[1]);
    const int b = (*it)[2].matched ? std::stoi((*it)[2]) : a;
    for (int c = a; c <= b; ++c) waiting.insert(c);
  }
  std::set<int> expected;
  for (const auto &[code, handler] : table) {
    if (live.count(code) == 0) expected.insert(code);
  }
  EXPECT_EQ(waiting, expected);

  // Every key a handler might want, for a key that is not there.
  const std::string keys =
      R"("keySN":"ZS_NOSUCHKEY","pin":"12345678","adminPin":"12345678","asymid":2,"randLen":16,"idx":7,)"
      R"("filepath":"f","raw":"AAAA","signData":"x","cert":"AAAA","url":"http://127.0.0.1:1","deviceID":"d")";
  const int64_t unsupported = ci_test::Signed(0x8208005Au);
  for (const auto &[code, handler] : table) {
    const Reply r = Ci("{\"type\":" + std::to_string(code) + "," + keys + "}");
    if (live.count(code) != 0) {
      EXPECT_NE(r.code, unsupported) << handler << ": " << r.text;
    } else {
      EXPECT_EQ(r.code, unsupported) << handler << ": " << r.text;
    }
  }
}

}  // namespace
