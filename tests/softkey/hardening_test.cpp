// PIN counters that no failure bypasses, device folders nobody else controls,
// no stale copies of the state, PIN changes that reach the keys, and devices
// written by earlier versions.
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>

#include <cjson/cJSON.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "softkey_test.hpp"

namespace sk_test {
namespace {

namespace fs = std::filesystem;

class HardeningTest : public SoftkeyTest {
 protected:
  std::string Dir(const char *serial = kSerial) const { return root.file(serial); }

  // Runs body in a child process: its status, or nothing when it was killed.
  static std::optional<ULONG> InChild(const std::function<ULONG()> &body) {
    int fds[2];
    if (pipe(fds) != 0) return SAR_FAIL;
    const pid_t pid = fork();
    if (pid == 0) {
      close(fds[0]);
      const ULONG rv = body();
      _exit(write(fds[1], &rv, sizeof rv) == sizeof rv ? 0 : 1);
    }
    close(fds[1]);
    ULONG rv = SAR_FAIL;
    const bool answered = read(fds[0], &rv, sizeof rv) == sizeof rv;
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!answered) {
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the child ended otherwise";
      return std::nullopt;
    }
    return rv;
  }

  size_t Temporaries() const {
    size_t n = 0;
    for (const auto &e : fs::directory_iterator(Dir()))
      n += e.path().filename().string().rfind("device.json.tmp.", 0) == 0;
    return n;
  }
};

std::string ReadText(const std::string &path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Storage that takes no state, set up in the child: a full disk, or (when
// not root, who writes anyway) a read-only folder.
void FullDisk(const std::string &) {
  signal(SIGXFSZ, SIG_IGN);
  const rlimit none{0, 0};
  setrlimit(RLIMIT_FSIZE, &none);
}
void ReadOnlyFolder(const std::string &dir) { chmod(dir.c_str(), 0500); }

TEST_F(HardeningTest, NoPinAttemptIsAnsweredBeforeItIsCounted) {
  MakeStandardKey();
  struct Attempt {
    ULONG type;
    const char *pin;
  } const attempts[] = {
      {USER_TYPE, kUserPin}, {USER_TYPE, "00000000"}, {ADMIN_TYPE, kAdminPin}, {ADMIN_TYPE, "99999999"}};
  for (const auto &a : attempts) {
    const bool right = a.pin == kUserPin || a.pin == kAdminPin;
    SCOPED_TRACE(std::string(a.type == USER_TYPE ? "user " : "admin ") + a.pin);
    for (auto *storage : {FullDisk, ReadOnlyFolder}) {
      if (storage == ReadOnlyFolder && geteuid() == 0) continue;
      EXPECT_EQ(InChild([&] {
                  storage(Dir());
                  return Verify(a.type, a.pin);
                }),
                SAR_WRITEFILEERR)
          << "a counter that cannot be saved refuses the attempt, the right PIN too";
      chmod(Dir().c_str(), 0700);
      EXPECT_EQ(Remain(a.type), 3u);
    }
    // Killed as the lowered counter starts to be written: the PIN was not
    // compared yet, so the right and the wrong one die alike.
    setenv("ZEPH_SOFTKEY_KILL", "state-write:1", 1);
    EXPECT_EQ(InChild([&] { return Verify(a.type, a.pin); }), std::nullopt);
    unsetenv("ZEPH_SOFTKEY_KILL");
    EXPECT_EQ(Remain(a.type), 3u);
    EXPECT_EQ(Temporaries(), 0u);
    // Killed at the next write, after the comparison: the attempt is counted.
    setenv("ZEPH_SOFTKEY_KILL", "state-write:2", 1);
    const auto rv = InChild([&] { return Verify(a.type, a.pin); });
    unsetenv("ZEPH_SOFTKEY_KILL");
    EXPECT_EQ(rv, right ? std::nullopt : std::optional<ULONG>(SAR_PIN_INCORRECT));
    EXPECT_EQ(Remain(a.type), 2u);
    EXPECT_EQ(Verify(a.type, a.type == USER_TYPE ? kUserPin : kAdminPin), SAR_OK);
    EXPECT_EQ(Remain(a.type), 3u);
  }
}

TEST_F(HardeningTest, FoldersOthersControlAreRefusedWithAReason) {
  MustTool(std::string("create-device --serial ") + kSerial);
  const std::string root_dir = root.path().string(), dev_dir = Dir();
  struct Case {
    const std::string &dir;
    std::function<void()> spoil, mend;
    const char *reason;
  } const cases[] = {
      {root_dir, [&] { chmod(root_dir.c_str(), 0777); }, [&] { chmod(root_dir.c_str(), 0700); }, "writable by group"},
      {dev_dir, [&] { chmod(dev_dir.c_str(), 0720); }, [&] { chmod(dev_dir.c_str(), 0700); }, "writable by group"},
      {root_dir, [&] { EXPECT_EQ(chown(root_dir.c_str(), 4242, -1), 0); },
       [&] { EXPECT_EQ(chown(root_dir.c_str(), geteuid(), -1), 0); }, "owned by uid 4242"},
      {dev_dir, [&] { EXPECT_EQ(chown(dev_dir.c_str(), 4242, -1), 0); },
       [&] { EXPECT_EQ(chown(dev_dir.c_str(), geteuid(), -1), 0); }, "owned by uid 4242"},
      {dev_dir,
       [&] {
         fs::rename(dev_dir, dev_dir + ".real");
         fs::create_directory_symlink(dev_dir + ".real", dev_dir);
       },
       [&] {
         fs::remove(dev_dir);
         fs::rename(dev_dir + ".real", dev_dir);
       },
       "not a folder"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.reason + std::string(" ") + c.dir);
    if (std::string(c.reason).find("uid") != std::string::npos && geteuid() != 0) continue;  // only root gives away
    c.spoil();
    DEVHANDLE h = nullptr;
    EXPECT_EQ(skf.SKF_ConnectDev(S(kSerial), &h), SAR_FILEERR);
    std::string out;
    EXPECT_NE(Tool(std::string("show --serial ") + kSerial, &out), 0);
    EXPECT_NE(out.find("refusing " + c.dir + ": " + c.reason), std::string::npos) << out;
    if (&c.dir == &root_dir) {
      EXPECT_TRUE(List([&](char *b, ULONG *n) { return skf.SKF_EnumDev(TRUE, b, n); }).empty());
    }
    c.mend();
    EXPECT_NE(Connect(), nullptr);
  }
}

TEST_F(HardeningTest, AKilledWritersCopyOfTheStateIsRemovedOnTheNextConnection) {
  MakeStandardKey();
  setenv("ZEPH_SOFTKEY_KILL", "state-rename:1", 1);
  EXPECT_EQ(InChild([&] { return Verify(USER_TYPE, "00000000"); }), std::nullopt);
  unsetenv("ZEPH_SOFTKEY_KILL");
  EXPECT_EQ(Temporaries(), 1u);
  EXPECT_EQ(Remain(USER_TYPE), 3u) << "the lowered counter never took effect, and nothing was compared";
  EXPECT_EQ(Temporaries(), 0u);
}

// An attacker holding a copy of the device file from before a PIN change and
// the old PIN splices the old PIN record into the current file.
TEST_F(HardeningTest, AnOldPinRecordOpensNoKeyAfterThePinChanged) {
  MakeStandardKey();
  const std::string state = Dir() + "/device.json";
  for (ULONG type : {USER_TYPE, ADMIN_TYPE}) {
    const char *which = type == USER_TYPE ? "user" : "admin";
    SCOPED_TRACE(which);
    const std::string before = ReadText(state);
    HAPPLICATION app = OpenApp(Connect(), "VorliEcc");
    ULONG retry = 0;
    const char *old_pin = type == USER_TYPE ? kUserPin : kAdminPin;
    ASSERT_EQ(skf.SKF_ChangePIN(app, type, S(old_pin), S("55556666"), &retry), SAR_OK);
    const std::string after = ReadText(state);

    cJSON *old_doc = cJSON_Parse(before.c_str()), *doc = cJSON_Parse(after.c_str());
    ASSERT_TRUE(old_doc != nullptr && doc != nullptr);
    auto ecc = [](cJSON *d) { return cJSON_GetArrayItem(cJSON_GetObjectItem(d, "apps"), 0); };
    cJSON_ReplaceItemInObject(ecc(doc), which, cJSON_DetachItemFromObject(ecc(old_doc), which));
    char *spliced = cJSON_Print(doc);
    std::ofstream(state) << spliced;
    cJSON_free(spliced);
    cJSON_Delete(old_doc);
    cJSON_Delete(doc);

    if (type == USER_TYPE) {
      EXPECT_EQ(Verify(USER_TYPE, kUserPin), SAR_OK) << "the old record still opens";
      EXPECT_EQ(Sign(kUserPin), SAR_FILEERR) << "but not the current keys";
    } else {
      HAPPLICATION h = OpenApp(Connect(), "VorliEcc");
      EXPECT_EQ(skf.SKF_UnblockPIN(h, S(kAdminPin), S("77778888"), &retry), SAR_FILEERR)
          << "the old record cannot hand out a user PIN to the current keys";
    }
    std::ofstream(state) << after;
  }
  // The honest way round: the new PINs reach every key, through either record.
  EXPECT_EQ(Sign("55556666"), SAR_OK);
  HAPPLICATION h = OpenApp(Connect(), "VorliEcc");
  ULONG retry = 0;
  ASSERT_EQ(skf.SKF_UnblockPIN(h, S("55556666"), S("11112222"), &retry), SAR_OK);
  EXPECT_EQ(Sign("11112222"), SAR_OK);
}

TEST_F(HardeningTest, DevicesOfTheFirstFormatOpenAndMoveToTheCurrentKdf) {
  const std::string dir = root.file("OLD1");
  fs::create_directory(dir);
  fs::permissions(dir, fs::perms::owner_all, fs::perm_options::replace);
  fs::copy_file(ZEPH_SOURCE_DIR "/tests/data/softkey/format1-device.json", dir + "/device.json");
  EXPECT_EQ(Sign("00000000", "OLD1"), SAR_PIN_INCORRECT);
  EXPECT_EQ(Sign(kUserPin, "OLD1"), SAR_OK);
  const std::string text = ReadText(dir + "/device.json");
  EXPECT_NE(text.find("\"scrypt\""), std::string::npos) << "the user record moved on";
  EXPECT_NE(text.find("\"iterations\""), std::string::npos) << "the administrator's waits for its PIN";
  // A change while the other record is of the old form keeps the keys working.
  HAPPLICATION app = OpenApp(Connect("OLD1"), "VorliEcc");
  ULONG retry = 0;
  ASSERT_EQ(skf.SKF_ChangePIN(app, USER_TYPE, S(kUserPin), S("24682468"), &retry), SAR_OK);
  ASSERT_EQ(skf.SKF_UnblockPIN(app, S(kAdminPin), S("13571357"), &retry), SAR_OK);
  EXPECT_EQ(ReadText(dir + "/device.json").find("\"iterations\""), std::string::npos);
  EXPECT_EQ(Sign("13571357", "OLD1"), SAR_OK);
}

TEST_F(HardeningTest, TheUtilityTakesPinsFromStandardInput) {
  MustTool(std::string("create-device --serial ") + kSerial);
  const std::string dev = std::string(" --serial ") + kSerial + " --app VorliEcc";
  zeph_test::TempDir input;
  std::ofstream(input.file("two")) << kAdminPin << "\n" << kUserPin << "\n";
  std::ofstream(input.file("one")) << kUserPin << "\n";
  MustTool("create-app" + dev + " --pin-stdin < " + input.file("two"));
  MustTool("gen-key" + dev + " --container ECC --alg sm2 --usage sign --no-cert --pin-stdin < " + input.file("one"));
  EXPECT_EQ(Sign(kUserPin), SAR_OK) << "the second line was the user PIN";
  EXPECT_EQ(Verify(ADMIN_TYPE, kAdminPin), SAR_OK) << "the first the administrator's";
  std::string out;
  EXPECT_EQ(Tool("gen-key" + dev + " --container E2 --alg sm2 --no-cert < /dev/null", &out), 2);
  EXPECT_NE(out.find("--pin-stdin"), std::string::npos) << out;
  EXPECT_EQ(Tool("gen-key" + dev + " --container E2 --alg sm2 --no-cert --pin-stdin < /dev/null", &out), 2) << out;
  EXPECT_EQ(Tool("--help", &out), 0);
  EXPECT_NE(out.find("visible to other users"), std::string::npos);
}

}  // namespace
}  // namespace sk_test
