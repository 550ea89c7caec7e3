// docs/ci.md against the code: the worked session runs as written, the live
// table names the handlers the command table holds, the keys each handler
// reads and the exact data it returns, and no row answers 0x8208005A.
#if defined(__GNUC__) && !defined(__clang__)
// libstdc++'s <regex> trips a false -Wmaybe-uninitialized in sanitizer builds.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <cctype>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "ci_support.hpp"
#include "loopback.hpp"
#include "test_support.hpp"

namespace {

using ci_test::Ci;
using ci_test::Reply;

std::string ReadText(const std::string &relative) {
  std::ifstream in(std::string(ZEPH_SOURCE_DIR) + "/" + relative);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// The lines of one "## " section of the document.
std::vector<std::string> Section(const std::string &doc, const std::string &title) {
  std::vector<std::string> out;
  std::istringstream in(doc);
  bool inside = false;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("## ", 0) == 0) {
      inside = line == "## " + title;
    } else if (inside) {
      out.push_back(line);
    }
  }
  return out;
}

// Every match of one group of re in text.
std::vector<std::string> All(const std::string &text, const std::string &re, int group = 1) {
  std::vector<std::string> out;
  const std::regex r(re);
  for (std::sregex_iterator it(text.begin(), text.end(), r), end; it != end; ++it) out.push_back((*it)[group]);
  return out;
}

// A documented text with <placeholders> against an actual text: known values
// are literal, <n> <base64> <text> <json> match their kind, and <name=kind>
// also captures the value into *captured, in order. Matched by hand, not by
// std::regex, whose recursion overflows the stack on seal-sized replies.
class Template {
 public:
  Template(const std::string &templ, const std::map<std::string, std::string> &vars) {
    static const std::regex kTag(R"(<(\w+)(?:=(\w+))?>)");
    static const std::set<std::string> kKinds = {"n", "base64", "text", "json"};
    size_t at = 0;
    for (std::sregex_iterator it(templ.begin(), templ.end(), kTag), end; it != end; ++it) {
      const std::smatch &m = *it;
      tokens_.push_back({templ.substr(at, static_cast<size_t>(m.position()) - at), "", ""});
      at = static_cast<size_t>(m.position() + m.length());
      if (m[2].matched) {
        tokens_.push_back({"", m[2], m[1]});
      } else if (vars.count(m[1]) != 0) {
        tokens_.push_back({vars.at(m[1]), "", ""});
      } else {
        tokens_.push_back(kKinds.count(m[1]) != 0 ? Token{"", m[1], ""} : Token{m[0], "", ""});
      }
    }
    tokens_.push_back({templ.substr(at), "", ""});
  }

  bool Match(const std::string &text, std::vector<std::pair<std::string, std::string>> *captured) const {
    std::vector<std::pair<std::string, std::string>> found;
    if (!MatchFrom(0, text, 0, &found)) return false;
    if (captured != nullptr) *captured = std::move(found);
    return true;
  }

 private:
  struct Token {
    std::string literal, kind, name;
  };

  // Every class is a run that may give back characters from its end.
  bool MatchFrom(size_t i, const std::string &s, size_t pos,
                 std::vector<std::pair<std::string, std::string>> *found) const {
    if (i == tokens_.size()) return pos == s.size();
    const Token &t = tokens_[i];
    if (t.kind.empty())
      return s.compare(pos, t.literal.size(), t.literal) == 0 && MatchFrom(i + 1, s, pos + t.literal.size(), found);
    size_t first = pos, end = pos;
    const auto run = [&](auto in_class) {
      while (end < s.size() && in_class(static_cast<unsigned char>(s[end]))) ++end;
    };
    if (t.kind == "json") {
      end = s.size();
    } else if (t.kind == "text") {
      run([](unsigned char c) { return c != '"' && c != '\\'; });
    } else if (t.kind == "base64") {
      run([](unsigned char c) { return std::isalnum(c) || c == '+' || c == '/' || c == '='; });
      ++first;
    } else {
      if (end < s.size() && s[end] == '-') ++end;
      const size_t digits = end;
      run([](unsigned char c) { return std::isdigit(c) != 0; });
      first = digits + 1;
    }
    for (size_t e = end; e >= first && e != SIZE_MAX; --e) {
      const size_t mark = found->size();
      if (!t.name.empty()) found->emplace_back(t.name, s.substr(pos, e - pos));
      if (MatchFrom(i + 1, s, e, found)) return true;
      found->resize(mark);
      if (e == 0) break;
    }
    return false;
  }

  std::vector<Token> tokens_;
};

struct LiveRow {
  std::string handler;
  std::set<std::string> reads;
  std::string data;  // pattern of the data text; empty: no data
};

class CiDocs : public ci_test::SoftKeyCi {
 protected:
  void SetUp() override {
    SoftKeyCi::SetUp();
    vars_["sample"] = ci_test::Base64(zeph_test::RandomBytes(50000, 3));
    doc_ = ReadText("docs/ci.md");
    ASSERT_FALSE(doc_.empty());
    const std::regex row(R"(^\| (\d+) \| `(\w+)` \| ([^|]*) \| (?:`([^`]*)`|—).* \|$)");
    // The co-signing rows need a service; tests/integration/cosign_ci_test.cpp runs them.
    for (auto [title, rows] : {std::pair{"Commands that work now", &live_}, {"Co-signing commands", &cosign_}}) {
      for (const auto &line : Section(doc_, title)) {
        std::smatch m;
        if (!std::regex_match(line, m, row)) continue;
        const auto reads = All(m[3], "`(\\w+)`");
        (*rows)[std::stoi(m[1])] = {m[2], {reads.begin(), reads.end()}, m[4]};
      }
    }
    const std::string src = ReadText("src/ci/zeph_c_ci.cpp");
    const auto codes = All(src, R"(\{(\d+), (l_\w+)\})"), handlers = All(src, R"(\{(\d+), (l_\w+)\})", 2);
    for (size_t i = 0; i < codes.size(); ++i) table_[std::stoi(codes[i])] = handlers[i];
    AddMessageVars();
  }

  // The values the signing and envelope rows of the session use: a content
  // key encrypted by OpenSSL to each encryption certificate, a bundle of the
  // two signing certificates, a password-protected PKCS#8 key.
  void AddMessageVars() {
    const std::vector<uint8_t> key = zeph_test::FromHex("0123456789abcdeffedcba9876543210");
    vars_["sm2Cipher"] = ci_test::Base64(zeph_test::Encrypt(sm2_enc_cert_, key));
    vars_["rsaCipher"] = ci_test::Base64(zeph_test::Encrypt(rsa_enc_cert_, key));
    zeph_test::WriteBytes(files_.file("rsa.der"), rsa_cert_);
    zeph_test::WriteBytes(files_.file("sm2.der"), sm2_cert_);
    ASSERT_EQ(zeph_test::Shell("cd '" + files_.path().string() +
                               "' && openssl req -x509 -newkey rsa:1024 -nodes -keyout k.pem -out c.pem -subj /CN=fkey"
                               " -days 2 2>/dev/null && openssl pkcs8 -topk8 -v2 aes-128-cbc -passout pass:fkey-pass"
                               " -in k.pem -outform DER -out k.p8 && openssl x509 -in c.pem -outform DER -out c.der"
                               " && for c in rsa sm2; do openssl x509 -inform DER -in $c.der; done > certs.pem"
                               " && openssl crl2pkcs7 -nocrl -certfile certs.pem -outform DER -out chain.p7b"),
              0);
    vars_["chain"] = ci_test::Base64(zeph_test::ReadBytes(files_.file("chain.p7b")));
    vars_["p8"] = ci_test::Base64(zeph_test::ReadBytes(files_.file("k.p8")));
    vars_["p8Cert"] = ci_test::Base64(zeph_test::ReadBytes(files_.file("c.der")));
    for (const char *name : {"file", "doc"}) {
      zeph_test::WriteBytes(files_.file(name), {'h', 'e', 'l', 'l', 'o', ' ', 'f', 'i', 'l', 'e', '\n'});
      vars_[name] = files_.file(name);
    }
  }

  zeph_test::TempDir files_;

  std::string doc_;
  std::map<int, LiveRow> live_, cosign_;
  std::map<int, std::string> table_;  // the command table as the source writes it
};

TEST_F(CiDocs, SessionRunsAndTheLiveTableMatchesTheHandlers) {
  ASSERT_EQ(live_.size(), 60u) << "live rows found in docs/ci.md";
  ASSERT_EQ(table_.size(), 71u);
  const auto parser_keys = All(ReadText("src/ci/ci_request.cpp"), "\"(\\w+)\"");

  struct Step {
    std::string request, response;
    Reply actual;
  };
  std::vector<Step> steps;
  for (const auto &line : Section(doc_, "Worked session")) {
    if (line.rfind("> ", 0) == 0) steps.push_back({line.substr(2), {}, {}});
    if (line.rfind("< ", 0) == 0 && !steps.empty()) steps.back().response = line.substr(2);
  }
  ASSERT_GE(steps.size(), 30u);
  for (auto &step : steps) {
    step.request = Fill(step.request);
    step.actual = Ci(step.request);
    std::vector<std::pair<std::string, std::string>> captured;
    const bool ok = Template(step.response, vars_).Match(step.actual.text, &captured);
    EXPECT_TRUE(ok) << "request  " << step.request.substr(0, 300) << "\nexpected " << step.response.substr(0, 300)
                    << "\ngot " << step.actual.text.substr(0, 300);
    for (const auto &[name, value] : captured) vars_[name] = value;
  }

  for (const auto &[code, row] : live_) {
    SCOPED_TRACE(code);
    ASSERT_EQ(table_.count(code), 1u);
    EXPECT_EQ(row.handler, table_.at(code));
    std::set<std::string> used;
    int successes = 0;
    for (const auto &step : steps) {
      if (step.actual.type != code) continue;
      cJSON *request = cJSON_Parse(step.request.c_str());
      for (const cJSON *item = request->child; item != nullptr; item = item->next) used.insert(item->string);
      cJSON_Delete(request);
      if (step.actual.code != 0) continue;
      ++successes;
      EXPECT_EQ(step.actual.has_data, !row.data.empty()) << step.actual.text.substr(0, 300);
      EXPECT_TRUE(row.data.empty() || Template(row.data, vars_).Match(step.actual.data, nullptr))
          << step.actual.data.substr(0, 300) << " against " << row.data;
    }
    used.erase("type");
    EXPECT_GT(successes, 0) << "never succeeds in the session";
    EXPECT_EQ(used, row.reads) << "keys used in the session differ from the Reads column";
    for (const auto &key : row.reads) EXPECT_NE(std::count(parser_keys.begin(), parser_keys.end(), key), 0) << key;
  }
}

TEST_F(CiDocs, EveryRowIsLiveAndNoneAnswersUnsupported) {
  std::string text;
  for (const auto &line : Section(doc_, "Commands that work now")) text += line + " ";
  EXPECT_NE(text.find("Every row of the table answers for real"), std::string::npos);
  for (const auto &[code, handler] : table_) {
    EXPECT_TRUE(live_.count(code) + cosign_.count(code) != 0) << handler << " is in no documented session";
  }

  // Every key a handler might want, for a key that is not there.
  const std::string keys =
      R"("keySN":"ZS_NOSUCHKEY","pin":"12345678","adminPin":"12345678","asymid":2,"algID":2,"randLen":16,"idx":7,)"
      R"("filepath":"f","raw":"AAAA","signData":"x","cert":"AAAA","url":"http://127.0.0.1:1","deviceID":"d")";
  for (const auto &[code, handler] : table_) {
    const Reply r = Ci("{\"type\":" + std::to_string(code) + "," + keys + "}");
    EXPECT_EQ(r.code == ci_test::Signed(0x8208005Au), live_.count(code) + cosign_.count(code) == 0)
        << handler << ": " << r.text;
  }
  const auto parser_keys = All(ReadText("src/ci/ci_request.cpp"), "\"(\\w+)\"");
  EXPECT_EQ(cosign_.size(), 11u);
  for (const auto &[code, row] : cosign_) {
    EXPECT_EQ(row.handler, table_.at(code)) << code;
    for (const auto &key : row.reads) EXPECT_NE(std::count(parser_keys.begin(), parser_keys.end(), key), 0) << key;
  }
}

}  // namespace
