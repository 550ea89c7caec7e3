// zeph-softkey: sets up and inspects software keys (devices, applications,
// key pairs with self-signed certificates, files). It is the provisioning
// tool: it works on the device folders directly, without device
// authentication, and needs the user PIN only to seal new private keys.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <openssl/pem.h>

#include "common/command_line.hpp"
#include "common/io.hpp"
#include "common/status.hpp"
#include "crypto.hpp"
#include "device_json.hpp"
#include "store.hpp"

using namespace softkey;

namespace {

constexpr const char *kDefaultAuthKeyHex = "31323334353637383132333435363738";  // "1234567812345678"

const char *const kUsage = R"(usage: zeph-softkey [--root DIR] COMMAND [OPTIONS]

The root folder is --root, else $ZEPH_SOFTKEY_ROOT, else a per-user folder.

  list
  create-device --serial SN [--label TEXT] [--manufacturer TEXT] [--issuer TEXT]
                [--auth-key HEX] [--space BYTES]
  delete-device --serial SN
  plug --serial SN
  unplug --serial SN
  show --serial SN
  create-app    --serial SN --app NAME --admin-pin PIN --user-pin PIN
                [--admin-retry N] [--user-retry N] [--file-rights R]
  delete-app    --serial SN --app NAME
  gen-key       --serial SN --app NAME --container NAME --user-pin PIN
                --alg sm2|rsa1024|rsa2048 [--usage sign|enc|both]
                [--subject DN] [--days N] [--no-cert]
  import-cert   --serial SN --app NAME --container NAME --cert FILE [--usage sign|enc]
  export-cert   --serial SN --app NAME --container NAME [--usage sign|enc] [--out FILE] [--der]
  write-file    --serial SN --app NAME --file NAME (--in FILE | --text TEXT)
                [--read-rights R] [--write-rights R]
  read-file     --serial SN --app NAME --file NAME [--out FILE]
  delete-file   --serial SN --app NAME --file NAME
)";

// Every failure ends here: one clear line on stderr, a non-zero exit.
struct Failure {
  std::string message;
  int code = 1;
};

[[noreturn]] void Fail(const std::string &message, int code = 1) { throw Failure{message, code}; }

// The options of one command, named without their "--".
class Args {
 public:
  explicit Args(zeph_tools::CommandLine line) : line_(std::move(line)) {}

  std::string Get(const std::string &name) const {
    if (!line_.Has("--" + name)) Fail("missing --" + name, 2);
    used_.insert(name);
    return line_.Get("--" + name);
  }
  std::string Get(const std::string &name, const std::string &fallback) const {
    return Has(name) ? Get(name) : fallback;
  }
  bool Has(const std::string &name) const { return line_.Has("--" + name); }
  bool Flag(const std::string &name) const {
    used_.insert(name);
    return line_.flags.count("--" + name) != 0;
  }
  uint32_t Number(const std::string &name, uint32_t fallback, uint32_t lo, uint32_t hi) const {
    if (!Has(name)) return fallback;
    uint64_t v = 0;
    if (!zeph_tools::ParseNumber(Get(name), lo, hi, &v))
      Fail("--" + name + " must be a number from " + std::to_string(lo) + " to " + std::to_string(hi), 2);
    return static_cast<uint32_t>(v);
  }
  // Options given but not used by the command are mistakes worth reporting.
  void CheckAllUsed() const {
    for (const auto &[k, v] : line_.options)
      if (used_.count(k.substr(2)) == 0) Fail("option " + k + " does not apply here", 2);
    for (const auto &k : line_.flags)
      if (used_.count(k.substr(2)) == 0) Fail("option " + k + " does not apply here", 2);
  }

 private:
  zeph_tools::CommandLine line_;
  mutable std::set<std::string> used_;
};

const std::set<std::string> kFlags = {"--no-cert", "--der"};

std::string Rights(uint32_t r) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "0x%02X", r);
  return buf;
}

std::string StatusText(ULONG rv) {
  switch (rv) {
    case SAR_DEVICE_REMOVED:
      return "no such device";
    case SAR_READFILEERR:
      return "cannot read the device file";
    case SAR_WRITEFILEERR:
      return "cannot write the device file";
    case SAR_FILEERR:
      return "the device file is damaged";
    default:
      return "status " + zeph_tools::StatusText(rv);
  }
}

struct Context {
  std::string root;
  const Args &args;

  std::string Serial() const {
    const std::string serial = args.Get("serial");
    if (!IsDeviceName(serial))
      Fail("serial number \"" + serial + "\" must be 1 to 31 letters, digits, '-', '_' or '.' (not starting with '.')",
           2);
    return serial;
  }
  std::string Dir() const { return DeviceDir(root, Serial()); }

  // The provisioning tool also reads unplugged devices.
  std::shared_ptr<const Device> Load() const {
    std::shared_ptr<const Device> dev;
    if (DevicePresence(Dir()) == Presence::kMissing) Fail("no device " + Serial() + " under " + root);
    if (const ULONG rv = LoadDevice(Dir(), dev, true); rv != SAR_OK) Fail("device " + Serial() + ": " + StatusText(rv));
    return dev;
  }

  void Update(const std::function<void(Device &)> &change) const {
    const std::string dir = Dir();
    if (DevicePresence(dir) == Presence::kMissing) Fail("no device " + Serial() + " under " + root);
    std::string failure;
    const ULONG rv = UpdateDevice(dir, [&](Device &d) -> ULONG {
      try {
        change(d);
      } catch (const Failure &f) {
        failure = f.message;
        return SAR_FAIL;
      }
      return SAR_OK;
    });
    if (!failure.empty()) Fail(failure);
    if (rv != SAR_OK) Fail("device " + Serial() + ": " + StatusText(rv));
  }
};

Application &AppIn(Device &d, const std::string &name, const std::string &serial) {
  Application *a = d.FindApp(name);
  if (a == nullptr) Fail("device " + serial + " has no application " + name);
  return *a;
}

const Application &AppIn(const Device &d, const std::string &name, const std::string &serial) {
  const Application *a = d.FindApp(name);
  if (a == nullptr) Fail("device " + serial + " has no application " + name);
  return *a;
}

Bytes ReadInput(const std::string &path) {
  Bytes data;
  std::string error;
  if (!zeph_tools::ReadInput(path, &data, &error)) Fail(error);
  return data;
}

void WriteOutput(const std::string &path, const Bytes &data) {
  std::cout.flush();
  std::string error;
  if (!zeph_tools::WriteOutput(path, data.data(), data.size(), &error)) Fail(error);
}

std::string PinArg(const Args &a, const std::string &name) {
  const std::string pin = a.Get(name);
  if (pin.size() < kMinPin || pin.size() > kMaxPin) Fail("--" + name + " must be 6 to 16 characters", 2);
  return pin;
}

std::string CertSubject(const Bytes &der) {
  const unsigned char *p = der.data();
  zeph::X509Ptr x(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  if (!x) return "(unreadable)";
  char buf[256];
  X509_NAME_oneline(X509_get_subject_name(x.get()), buf, sizeof buf);
  return buf;
}

std::string KeyText(const std::optional<KeyPair> &k) {
  if (!k) return "none";
  return k->alg == SGD_SM2_1 ? "SM2 256" : "RSA " + std::to_string(k->bits);
}

// ---- commands -----------------------------------------------------------------

void List(const Context &c) {
  c.args.CheckAllUsed();
  const auto all = ListDevices(c.root, false);
  if (all.empty()) {
    std::cout << "no devices under " << c.root << "\n";
    return;
  }
  for (const auto &name : all) {
    const std::string dir = DeviceDir(c.root, name);
    const bool present = DevicePresence(dir) == Presence::kPresent;
    Device d;
    std::ifstream in(dir + "/device.json");
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const bool ok = Parse(text, d);
    std::cout << name << "  " << (present ? "present  " : "unplugged") << "  "
              << (ok ? "label \"" + d.label + "\", " + std::to_string(d.apps.size()) + " application(s)"
                     : std::string("damaged device file"))
              << "\n";
  }
}

void CreateDeviceCmd(const Context &c) {
  Device d;
  d.serial = c.Serial();
  d.label = c.args.Get("label", "zeph softkey");
  d.manufacturer = c.args.Get("manufacturer", "zeph");
  d.issuer = c.args.Get("issuer", "zeph");
  if (d.label.size() > 31 || d.manufacturer.size() > 63 || d.issuer.size() > 63)
    Fail("--label holds at most 31 characters, --manufacturer and --issuer 63", 2);
  if (!zeph_tools::ParseHex(c.args.Get("auth-key", kDefaultAuthKeyHex), &d.auth_key) || d.auth_key.size() != 16)
    Fail("--auth-key must be 32 hex digits (a 16-byte SM4 key)", 2);
  d.total_space = c.args.Number("space", kDefaultTotalSpace, 1024, 0x7FFFFFFF);
  c.args.CheckAllUsed();
  const std::string dir = c.Dir();
  if (DevicePresence(dir) != Presence::kMissing) Fail("device " + d.serial + " already exists under " + c.root);
  if (const ULONG rv = CreateDevice(dir, d); rv != SAR_OK)
    Fail("cannot create device " + d.serial + " under " + c.root + ": " + StatusText(rv));
  std::cout << "created device " << d.serial << " in " << dir << "\n";
}

void DeleteDeviceCmd(const Context &c) {
  c.args.CheckAllUsed();
  const std::string dir = c.Dir();
  if (DevicePresence(dir) == Presence::kMissing) Fail("no device " + c.Serial() + " under " + c.root);
  if (const ULONG rv = DeleteDevice(dir); rv != SAR_OK) Fail("cannot delete " + dir + ": " + StatusText(rv));
  std::cout << "deleted device " << c.Serial() << "\n";
}

void PlugCmd(const Context &c, bool plugged) {
  c.args.CheckAllUsed();
  const std::string dir = c.Dir();
  if (DevicePresence(dir) == Presence::kMissing) Fail("no device " + c.Serial() + " under " + c.root);
  if (const ULONG rv = SetPlugged(dir, plugged); rv != SAR_OK) Fail("cannot change " + dir + ": " + StatusText(rv));
  std::cout << (plugged ? "plugged in " : "unplugged ") << c.Serial() << "\n";
}

void CreateAppCmd(const Context &c) {
  const std::string name = c.args.Get("app");
  if (name.empty() || name.size() > kMaxAppName) Fail("--app must be 1 to 16 characters", 2);
  const std::string admin_pin = PinArg(c.args, "admin-pin"), user_pin = PinArg(c.args, "user-pin");
  const uint32_t admin_retry = c.args.Number("admin-retry", 10, 1, 255);
  const uint32_t user_retry = c.args.Number("user-retry", 10, 1, 255);
  const uint32_t rights = c.args.Number("file-rights", SECURE_USER_ACCOUNT, 0, 0xFF);
  c.args.CheckAllUsed();
  Application app;
  app.name = name;
  app.id = RandomId();
  app.create_file_rights = rights;
  const SecureBytes master = NewMasterKey();
  app.admin = MakePin(admin_pin, master.span(), admin_retry);
  app.user = MakePin(user_pin, master.span(), user_retry);
  c.Update([&](Device &d) {
    if (d.FindApp(name) != nullptr) Fail("device " + d.serial + " already has an application " + name);
    if (d.apps.size() >= kMaxApps) Fail("device " + d.serial + " holds no more applications");
    d.apps.push_back(app);
  });
  std::cout << "created application " << name << " on " << c.Serial() << "\n";
}

void DeleteAppCmd(const Context &c) {
  const std::string name = c.args.Get("app");
  c.args.CheckAllUsed();
  c.Update([&](Device &d) {
    AppIn(d, name, d.serial);
    std::erase_if(d.apps, [&](const Application &a) { return a.name == name; });
  });
  std::cout << "deleted application " << name << " from " << c.Serial() << "\n";
}

void GenKeyCmd(const Context &c) {
  const std::string app_name = c.args.Get("app"), con_name = c.args.Get("container");
  if (con_name.empty() || con_name.size() > kMaxContainerName) Fail("--container must be 1 to 64 characters", 2);
  const std::string pin = PinArg(c.args, "user-pin");
  const std::string alg = c.args.Get("alg");
  const std::string usage = c.args.Get("usage", "sign");
  const int days = static_cast<int>(c.args.Number("days", 3650, 1, 36500));
  const bool no_cert = c.args.Flag("no-cert");
  const std::string subject = c.args.Get("subject", "");
  if (alg != "sm2" && alg != "rsa1024" && alg != "rsa2048") Fail("--alg must be sm2, rsa1024 or rsa2048", 2);
  if (usage != "sign" && usage != "enc" && usage != "both") Fail("--usage must be sign, enc or both", 2);
  c.args.CheckAllUsed();

  const auto dev = c.Load();
  const Application &app = AppIn(*dev, app_name, dev->serial);
  SecureBytes master;
  if (app.user.remain == 0) Fail("the user PIN of " + app_name + " is locked");
  if (!UnwrapMaster(app.user, pin, master)) Fail("wrong user PIN for application " + app_name);

  auto generate = [&]() -> EvpPkeyPtr {
    EvpPkeyPtr k = alg == "sm2" ? Sm2Generate() : RsaGenerate(alg == "rsa1024" ? 1024 : 2048);
    if (!k) Fail("key generation failed");
    return k;
  };
  struct Made {
    bool sign;
    KeyPair kp;
    Bytes cert;
  };
  std::vector<Made> made;
  for (const bool sign : {true, false}) {
    if ((sign && usage == "enc") || (!sign && usage == "sign")) continue;
    EvpPkeyPtr k = generate();
    Made m{sign, {}, {}};
    if (!WrapKeyPair(k.get(), master.span(), m.kp)) Fail("cannot store the key");
    if (!no_cert) {
      const std::string dn = !subject.empty()
                                 ? subject
                                 : "CN=" + c.Serial() + " " + con_name + (sign ? " sign" : " enc") + ",O=zeph softkey";
      m.cert = SelfSignedCert(k.get(), dn, days, !sign);
      if (m.cert.empty()) Fail("cannot make a certificate for subject \"" + dn + "\" (use CN=...,O=...)");
    }
    made.push_back(std::move(m));
  }
  const ULONG type = alg == "sm2" ? CONTAINER_TYPE_ECC : CONTAINER_TYPE_RSA;
  c.Update([&](Device &d) {
    Application &a = AppIn(d, app_name, d.serial);
    Container *con = a.FindContainer(con_name);
    if (con == nullptr) {
      if (a.containers.size() >= kMaxContainers) Fail("application " + app_name + " holds no more containers");
      Container fresh;
      fresh.name = con_name;
      fresh.id = RandomId();
      a.containers.push_back(fresh);
      con = &a.containers.back();
    }
    if (con->Type() != CONTAINER_TYPE_EMPTY && con->Type() != type)
      Fail("container " + con_name + " already holds keys of the other algorithm");
    for (const auto &m : made) {
      (m.sign ? con->sign : con->enc) = m.kp;
      (m.sign ? con->sign_cert : con->enc_cert) = m.cert;
    }
  });
  for (const auto &m : made)
    std::cout << "generated " << KeyText(m.kp) << (m.sign ? " signing" : " encryption") << " key pair in " << app_name
              << "/" << con_name << (m.cert.empty() ? "" : ", certificate " + CertSubject(m.cert)) << "\n";
}

void ImportCertCmd(const Context &c) {
  const std::string app_name = c.args.Get("app"), con_name = c.args.Get("container");
  const std::string path = c.args.Get("cert"), usage = c.args.Get("usage", "sign");
  if (usage != "sign" && usage != "enc") Fail("--usage must be sign or enc", 2);
  c.args.CheckAllUsed();
  const Bytes der = CertificateDer(ReadInput(path));
  if (der.empty()) Fail(path + " is not a certificate (PEM or DER)");
  c.Update([&](Device &d) {
    Container *con = AppIn(d, app_name, d.serial).FindContainer(con_name);
    if (con == nullptr) Fail("application " + app_name + " has no container " + con_name);
    (usage == "sign" ? con->sign_cert : con->enc_cert) = der;
  });
  std::cout << "imported " << usage << " certificate " << CertSubject(der) << " into " << app_name << "/" << con_name
            << "\n";
}

void ExportCertCmd(const Context &c) {
  const std::string app_name = c.args.Get("app"), con_name = c.args.Get("container");
  const std::string usage = c.args.Get("usage", "sign"), out = c.args.Get("out", "-");
  const bool der_out = c.args.Flag("der");
  if (usage != "sign" && usage != "enc") Fail("--usage must be sign or enc", 2);
  c.args.CheckAllUsed();
  const auto dev = c.Load();
  const Container *con = AppIn(*dev, app_name, dev->serial).FindContainer(con_name);
  if (con == nullptr) Fail("application " + app_name + " has no container " + con_name);
  const Bytes &der = usage == "sign" ? con->sign_cert : con->enc_cert;
  if (der.empty()) Fail("container " + con_name + " has no " + usage + " certificate");
  if (der_out) return WriteOutput(out, der);
  const unsigned char *p = der.data();
  zeph::X509Ptr x(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  zeph::BioPtr bio(BIO_new(BIO_s_mem()));
  if (!x || !bio || PEM_write_bio_X509(bio.get(), x.get()) != 1) Fail("the stored certificate is damaged");
  char *text = nullptr;
  const long n = BIO_get_mem_data(bio.get(), &text);
  WriteOutput(out, Bytes(text, text + n));
}

void WriteFileCmd(const Context &c) {
  const std::string app_name = c.args.Get("app"), name = c.args.Get("file");
  if (name.empty() || name.size() > kMaxFileName) Fail("--file must be 1 to 31 characters", 2);
  if (c.args.Has("in") == c.args.Has("text")) Fail("give exactly one of --in FILE and --text TEXT", 2);
  Bytes data;
  if (c.args.Has("in")) {
    data = ReadInput(c.args.Get("in"));
  } else {
    const std::string text = c.args.Get("text");
    data.assign(text.begin(), text.end());
  }
  const uint32_t read_rights = c.args.Number("read-rights", SECURE_EVERYONE_ACCOUNT, 0, 0xFF);
  const uint32_t write_rights = c.args.Number("write-rights", SECURE_USER_ACCOUNT, 0, 0xFF);
  c.args.CheckAllUsed();
  c.Update([&](Device &d) {
    Application &a = AppIn(d, app_name, d.serial);
    File *f = a.FindFile(name);
    const uint64_t others = d.UsedSpace() - (f != nullptr ? f->data.size() : 0);
    if (others + data.size() > d.total_space) Fail("device " + d.serial + " has no room for " + name);
    if (f == nullptr) {
      if (a.files.size() >= kMaxFiles) Fail("application " + app_name + " holds no more files");
      a.files.push_back(File{});
      f = &a.files.back();
      f->name = name;
    }
    // The file becomes exactly the new content, as a device writer leaves it.
    f->read_rights = read_rights;
    f->write_rights = write_rights;
    f->data = data;
  });
  std::cout << "wrote " << data.size() << " bytes to " << app_name << "/" << name << "\n";
}

void ReadFileCmd(const Context &c) {
  const std::string app_name = c.args.Get("app"), name = c.args.Get("file"), out = c.args.Get("out", "-");
  c.args.CheckAllUsed();
  const auto dev = c.Load();
  const File *f = AppIn(*dev, app_name, dev->serial).FindFile(name);
  if (f == nullptr) Fail("application " + app_name + " has no file " + name);
  WriteOutput(out, f->data);
}

void DeleteFileCmd(const Context &c) {
  const std::string app_name = c.args.Get("app"), name = c.args.Get("file");
  c.args.CheckAllUsed();
  c.Update([&](Device &d) {
    Application &a = AppIn(d, app_name, d.serial);
    if (a.FindFile(name) == nullptr) Fail("application " + app_name + " has no file " + name);
    std::erase_if(a.files, [&](const File &f) { return f.name == name; });
  });
  std::cout << "deleted " << app_name << "/" << name << "\n";
}

std::string PinText(const Pin &p) {
  return std::to_string(p.remain) + " of " + std::to_string(p.max_retry) + " tries left" +
         (p.remain == 0 ? " (locked)" : "") + (p.is_default ? ", never changed" : "");
}

void ShowCmd(const Context &c) {
  c.args.CheckAllUsed();
  const bool present = DevicePresence(c.Dir()) == Presence::kPresent;
  const auto dev = c.Load();
  const Device &d = *dev;
  std::cout << "device " << c.Serial() << (present ? " (present)" : " (unplugged)") << "\n"
            << "|  serial number: " << d.serial << "\n"
            << "|  label: " << d.label << "\n"
            << "|  manufacturer: " << d.manufacturer << ", issuer: " << d.issuer << "\n"
            << "|  space: " << d.UsedSpace() << " of " << d.total_space << " bytes used\n";
  for (size_t i = 0; i < d.apps.size(); ++i) {
    const Application &a = d.apps[i];
    const bool last_app = i + 1 == d.apps.size();
    const std::string bar = last_app ? "   " : "|  ";
    std::cout << (last_app ? "`- " : "|- ") << "application " << a.name << " (create-file rights "
              << Rights(a.create_file_rights) << ")\n"
              << bar << "|  admin PIN: " << PinText(a.admin) << "\n"
              << bar << "|  user PIN: " << PinText(a.user) << "\n";
    const size_t n = a.containers.size() + a.files.size();
    size_t k = 0;
    for (const auto &con : a.containers) {
      const bool last = ++k == n;
      const std::string sub = bar + (last ? "   " : "|  ");
      static const char *const kTypes[] = {"empty", "RSA", "SM2"};
      std::cout << bar << (last ? "`- " : "|- ") << "container " << con.name << " (" << kTypes[con.Type()] << ")\n"
                << sub << "sign key: " << KeyText(con.sign)
                << (con.sign_cert.empty() ? "" : ", certificate " + CertSubject(con.sign_cert)) << "\n"
                << sub << "enc key: " << KeyText(con.enc)
                << (con.enc_cert.empty() ? "" : ", certificate " + CertSubject(con.enc_cert)) << "\n";
    }
    for (const auto &f : a.files) {
      const bool last = ++k == n;
      std::cout << bar << (last ? "`- " : "|- ") << "file " << f.name << " (" << f.data.size() << " bytes, read "
                << Rights(f.read_rights) << ", write " << Rights(f.write_rights) << ")\n";
    }
  }
}

int Run(int argc, char **argv) {
  const zeph_tools::OptionRules rules{
      [](const std::string &option) { return option.rfind("--", 0) == 0 && kFlags.count(option) == 0; },
      [](const std::string &option) { return kFlags.count(option) != 0; }, false};
  zeph_tools::CommandLine line;
  std::string error;
  const bool parsed = zeph_tools::ParseCommandLine({argv + 1, argv + argc}, rules, &line, &error);
  if (line.help || std::find(line.words.begin(), line.words.end(), "help") != line.words.end()) {
    std::cout << kUsage;
    return 0;
  }
  if (!parsed) Fail(error, 2);
  if (line.words.size() > 1) Fail("unexpected argument \"" + line.words[1] + "\"", 2);
  const std::string command = line.words.empty() ? "" : line.words[0];
  std::string root = line.Get("--root");
  line.options.erase("--root");
  if (command.empty()) Fail("no command given (try --help)", 2);
  if (root.empty()) root = RootDir();
  const Args args(std::move(line));
  const Context c{root, args};

  static const std::map<std::string, void (*)(const Context &)> kCommands = {
      {"list", List},
      {"create-device", CreateDeviceCmd},
      {"delete-device", DeleteDeviceCmd},
      {"plug", [](const Context &x) { PlugCmd(x, true); }},
      {"unplug", [](const Context &x) { PlugCmd(x, false); }},
      {"show", ShowCmd},
      {"create-app", CreateAppCmd},
      {"delete-app", DeleteAppCmd},
      {"gen-key", GenKeyCmd},
      {"import-cert", ImportCertCmd},
      {"export-cert", ExportCertCmd},
      {"write-file", WriteFileCmd},
      {"read-file", ReadFileCmd},
      {"delete-file", DeleteFileCmd},
  };
  auto it = kCommands.find(command);
  if (it == kCommands.end()) Fail("unknown command \"" + command + "\" (try --help)", 2);
  if (command != "list") c.Serial();  // every other command names a device
  it->second(c);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  try {
    return Run(argc, argv);
  } catch (const Failure &f) {
    std::cerr << "zeph-softkey: " << f.message << "\n";
    return f.code;
  } catch (const std::bad_alloc &) {
    std::cerr << "zeph-softkey: out of memory\n";
    return 1;
  }
}
