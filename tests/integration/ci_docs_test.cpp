// docs/ci.md against the code: the worked session runs as written, the live
// table names the handlers the command table holds, the keys each handler
// reads and the exact data it returns, and the rows said to be waiting
// answer 0x8208005A while the live ones do not.
#if defined(__GNUC__) && !defined(__clang__)
// libstdc++'s <regex> trips a false -Wmaybe-uninitialized in sanitizer builds.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include <openssl/pkcs7.h>
#include <openssl/rsa.h>

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

std::string Escape(const std::string &text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

// A documented text with <placeholders> as a regular expression: known values
// are literal, <n> <base64> <text> <json> match their kind, and <name=kind>
// also captures the value into *names, in order.
std::string Pattern(const std::string &templ, const std::map<std::string, std::string> &vars,
                    std::vector<std::string> *names) {
  static const std::map<std::string, std::string> kKind = {
      {"n", "-?[0-9]+"}, {"base64", "[A-Za-z0-9+/=]+"}, {"text", R"([^"\\]*)"}, {"json", ".*"}};
  static const std::regex kTag(R"(<(\w+)(?:=(\w+))?>)");
  std::string out;
  size_t at = 0;
  for (std::sregex_iterator it(templ.begin(), templ.end(), kTag), end; it != end; ++it) {
    const std::smatch &m = *it;
    out += Escape(templ.substr(at, static_cast<size_t>(m.position()) - at));
    at = static_cast<size_t>(m.position() + m.length());
    if (m[2].matched) {
      names->push_back(m[1]);
      out += "(" + kKind.at(m[2]) + ")";
    } else if (vars.count(m[1]) != 0) {
      out += Escape(vars.at(m[1]));
    } else {
      out += kKind.count(m[1]) != 0 ? "(?:" + kKind.at(m[1]) + ")" : Escape(m[0]);
    }
  }
  return out + Escape(templ.substr(at));
}

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
    for (const auto &line : Section(doc_, "Commands that work now")) {
      std::smatch m;
      if (!std::regex_match(line, m, row)) continue;
      const auto reads = All(m[3], "`(\\w+)`");
      live_[std::stoi(m[1])] = {m[2], {reads.begin(), reads.end()}, m[4]};
    }
    const std::string src = ReadText("src/ci/zeph_c_ci.cpp");
    const auto codes = All(src, R"(\{(\d+), (l_\w+)\})"), handlers = All(src, R"(\{(\d+), (l_\w+)\})", 2);
    for (size_t i = 0; i < codes.size(); ++i) table_[std::stoi(codes[i])] = handlers[i];
    AddMessageVars();
  }

  // The values the signing and envelope rows of the session use.
  void AddMessageVars() {
    const std::vector<uint8_t> key = zeph_test::FromHex("0123456789abcdeffedcba9876543210");
    std::vector<uint8_t> sm2(256);
    auto sm2_len = static_cast<uint32_t>(sm2.size());
    ASSERT_EQ(BIVO_Sm2Encrypt(key.data(), 16, sm2_enc_cert_.data(), static_cast<uint32_t>(sm2_enc_cert_.size()),
                              sm2.data(), &sm2_len),
              0u);
    sm2.resize(sm2_len);
    const unsigned char *p = rsa_enc_cert_.data();
    X509 *rsa_cert = d2i_X509(nullptr, &p, static_cast<long>(rsa_enc_cert_.size()));
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(X509_get0_pubkey(rsa_cert), nullptr);
    std::vector<uint8_t> rsa(512);
    size_t rsa_len = rsa.size();
    EXPECT_TRUE(EVP_PKEY_encrypt_init(ctx) == 1 && EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) == 1 &&
                EVP_PKEY_encrypt(ctx, rsa.data(), &rsa_len, key.data(), key.size()) == 1);
    rsa.resize(rsa_len);
    EVP_PKEY_CTX_free(ctx);

    // A bundle of the two signing certificates.
    PKCS7 *bundle = PKCS7_new();
    PKCS7_set_type(bundle, NID_pkcs7_signed);
    PKCS7_content_new(bundle, NID_pkcs7_data);
    for (const auto *der : {&rsa_cert_, &sm2_cert_}) {
      p = der->data();
      X509 *c = d2i_X509(nullptr, &p, static_cast<long>(der->size()));
      PKCS7_add_certificate(bundle, c);
      X509_free(c);
    }
    unsigned char *chain = nullptr;
    const int chain_len = i2d_PKCS7(bundle, &chain);
    vars_["chain"] = ci_test::Base64({chain, chain + chain_len});
    OPENSSL_free(chain);
    PKCS7_free(bundle);
    X509_free(rsa_cert);
    vars_["sm2Cipher"] = ci_test::Base64(sm2);
    vars_["rsaCipher"] = ci_test::Base64(rsa);

    const std::string d = files_.path().string();
    ASSERT_EQ(zeph_test::Shell("cd '" + d +
                               "' && openssl req -x509 -newkey rsa:1024 -nodes -keyout k.pem -out c.pem -subj /CN=fkey"
                               " -days 2 2>/dev/null && openssl pkcs8 -topk8 -v2 aes-128-cbc -passout pass:fkey-pass"
                               " -in k.pem -outform DER -out k.p8 && openssl x509 -in c.pem -outform DER -out c.der"),
              0);
    vars_["p8"] = ci_test::Base64(zeph_test::ReadBytes(files_.file("k.p8")));
    vars_["p8Cert"] = ci_test::Base64(zeph_test::ReadBytes(files_.file("c.der")));
    for (const char *name : {"file", "doc"}) {
      zeph_test::WriteBytes(files_.file(name), {'h', 'e', 'l', 'l', 'o', ' ', 'f', 'i', 'l', 'e', '\n'});
      vars_[name] = files_.file(name);
    }
  }

  zeph_test::TempDir files_;

  std::string doc_;
  std::map<int, LiveRow> live_;
  std::map<int, std::string> table_;  // the command table as the source writes it
};

TEST_F(CiDocs, SessionRunsAndTheLiveTableMatchesTheHandlers) {
  ASSERT_EQ(live_.size(), 51u) << "live rows found in docs/ci.md";
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
    std::vector<std::string> names;
    std::smatch m;
    const bool ok = std::regex_match(step.actual.text, m, std::regex(Pattern(step.response, vars_, &names)));
    EXPECT_TRUE(ok) << "request  " << step.request << "\nexpected " << step.response << "\ngot " << step.actual.text;
    for (size_t k = 0; ok && k < names.size(); ++k) vars_[names[k]] = m[k + 1];
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
      std::vector<std::string> unused;
      EXPECT_EQ(step.actual.has_data, !row.data.empty()) << step.actual.text;
      EXPECT_TRUE(row.data.empty() || std::regex_match(step.actual.data, std::regex(Pattern(row.data, vars_, &unused))))
          << step.actual.data << " against " << row.data;
    }
    used.erase("type");
    EXPECT_GT(successes, 0) << "never succeeds in the session";
    EXPECT_EQ(used, row.reads) << "keys used in the session differ from the Reads column";
    for (const auto &key : row.reads) EXPECT_NE(std::count(parser_keys.begin(), parser_keys.end(), key), 0) << key;
  }
}

TEST_F(CiDocs, WaitingRowsAnswerUnsupportedAndLiveRowsDoNot) {
  // The sentence listing the waiting rows: "A to B" ranges and single codes.
  std::string text;
  for (const auto &line : Section(doc_, "Commands that work now")) text += line + " ";
  const size_t from = text.find("until their operations land:");
  ASSERT_NE(from, std::string::npos);
  const std::string list = text.substr(from, text.find('.', from) - from);
  std::set<int> waiting, expected;
  const std::regex item(R"((\d+)(?: to (\d+))?)");
  for (std::sregex_iterator it(list.begin(), list.end(), item), end; it != end; ++it) {
    for (int c = std::stoi((*it)[1]); c <= std::stoi((*it)[(*it)[2].matched ? 2 : 1]); ++c) waiting.insert(c);
  }
  for (const auto &[code, handler] : table_) {
    if (live_.count(code) == 0) expected.insert(code);
  }
  EXPECT_EQ(waiting, expected);

  // Every key a handler might want, for a key that is not there.
  const std::string keys =
      R"("keySN":"ZS_NOSUCHKEY","pin":"12345678","adminPin":"12345678","asymid":2,"algID":2,"randLen":16,"idx":7,)"
      R"("filepath":"f","raw":"AAAA","signData":"x","cert":"AAAA","url":"http://127.0.0.1:1","deviceID":"d")";
  for (const auto &[code, handler] : table_) {
    const Reply r = Ci("{\"type\":" + std::to_string(code) + "," + keys + "}");
    EXPECT_EQ(r.code == ci_test::Signed(0x8208005Au), live_.count(code) == 0) << handler << ": " << r.text;
  }
}

}  // namespace
