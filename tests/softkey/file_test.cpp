// Files: rights, offsets, sizes and the writer pattern of the device layer.
#include "softkey_test.hpp"

namespace sk_test {
namespace {

class FileTest : public SoftkeyTest {
 protected:
  void SetUp() override {
    SoftkeyTest::SetUp();
    MustTool("create-device --serial 0123ABCD --space 2048");
    for (const char *rights : {"0x10", "0xFF", "0x01", "0x00"})
      MustTool(std::string("create-app --serial 0123ABCD --app R") + rights + " --file-rights " + rights +
               " --admin-pin " + kAdminPin + " --user-pin " + kUserPin);
  }
  HAPPLICATION As(const char *app, ULONG role) {
    HAPPLICATION h = OpenApp(Connect(), app);
    ULONG retry = 0;
    if (role != 0) {
      EXPECT_EQ(skf.SKF_VerifyPIN(h, role == SECURE_USER_ACCOUNT ? USER_TYPE : ADMIN_TYPE,
                                  const_cast<char *>(role == SECURE_USER_ACCOUNT ? kUserPin : kAdminPin), &retry),
                SAR_OK);
    }
    return h;
  }
};

TEST_F(FileTest, RightsAdmitTheRoleLoggedInOnTheHandle) {
  constexpr ULONG kNone = 0, kUser = SECURE_USER_ACCOUNT, kAdmin = SECURE_ADM_ACCOUNT;
  constexpr ULONG kDenied = SAR_USER_NOT_LOGGED_IN;
  struct Case {
    const char *app;  // its create-file rights
    ULONG role, read, write;
    ULONG create_rv, read_rv, write_rv;
  } const cases[] = {
      {"R0x10", kUser, 0xFF, 0x10, SAR_OK, SAR_OK, SAR_OK},
      {"R0x10", kNone, 0xFF, 0x10, kDenied, 0, 0},
      {"R0x10", kAdmin, 0xFF, 0x10, kDenied, 0, 0},
      {"R0xFF", kNone, 0xFF, 0x10, SAR_OK, SAR_OK, kDenied},
      {"R0xFF", kNone, 0x10, 0xFF, SAR_OK, kDenied, SAR_OK},
      {"R0xFF", kAdmin, 0x01, 0x11, SAR_OK, SAR_OK, SAR_OK},
      {"R0xFF", kUser, 0x01, 0x00, SAR_OK, kDenied, kDenied},
      {"R0x01", kAdmin, 0xFF, 0x01, SAR_OK, SAR_OK, SAR_OK},
      {"R0x01", kUser, 0xFF, 0x10, kDenied, 0, 0},
      {"R0x00", kAdmin, 0xFF, 0xFF, kDenied, 0, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.app) + " role " + std::to_string(c.role));
    HAPPLICATION h = As(c.app, c.role);
    char name[] = "F";
    ASSERT_EQ(skf.SKF_CreateFile(h, name, 8, c.read, c.write), c.create_rv);
    if (c.create_rv != SAR_OK) continue;
    BYTE buf[8];
    ULONG len = sizeof buf;
    EXPECT_EQ(skf.SKF_ReadFile(h, name, 0, 8, buf, &len), c.read_rv);
    EXPECT_EQ(skf.SKF_WriteFile(h, name, 0, buf, 4), c.write_rv);
    EXPECT_EQ(skf.SKF_DeleteFile(h, name), c.write_rv) << "deleting needs the write right";
    if (c.write_rv != SAR_OK) MustTool(std::string("delete-file --serial 0123ABCD --app ") + c.app + " --file F");
  }
}

TEST_F(FileTest, OffsetsSizesAndTheBufferProtocol) {
  HAPPLICATION h = As("R0x10", SECURE_USER_ACCOUNT);
  char name[] = "CertChain";
  ASSERT_EQ(skf.SKF_CreateFile(h, name, 10, 0xFF, 0x10), SAR_OK);
  EXPECT_EQ(skf.SKF_CreateFile(h, name, 10, 0xFF, 0x10), SAR_FILE_ALREADY_EXIST);
  BYTE abc[] = {'a', 'b', 'c'};
  EXPECT_EQ(skf.SKF_WriteFile(h, name, 4, abc, 3), SAR_OK);
  EXPECT_EQ(skf.SKF_WriteFile(h, name, 8, abc, 3), SAR_INDATALENERR);
  EXPECT_EQ(skf.SKF_WriteFile(h, name, 0xFFFFFFFF, abc, 3), SAR_INDATALENERR);

  struct Read {
    ULONG offset, size, cap;
    ULONG rv, len;
  } const reads[] = {
      {0, 100, 100, SAR_OK, 10}, {4, 3, 3, SAR_OK, 3},     {10, 5, 5, SAR_OK, 0},
      {11, 1, 1, SAR_INDATALENERR, 0}, {0, 10, 9, SAR_BUFFER_TOO_SMALL, 10},
  };
  for (const auto &r : reads) {
    std::vector<BYTE> buf(r.cap + 1, 0xEE);
    ULONG len = r.cap;
    EXPECT_EQ(skf.SKF_ReadFile(h, name, r.offset, r.size, buf.data(), &len), r.rv) << r.offset << "/" << r.cap;
    if (r.rv != SAR_INDATALENERR) {
      EXPECT_EQ(len, r.len);
    }
    EXPECT_EQ(buf[r.cap], 0xEE) << "wrote past the stated capacity";
  }
  BYTE all[10];
  ULONG len = 0;
  ASSERT_EQ(skf.SKF_ReadFile(h, name, 0, 10, nullptr, &len), SAR_OK);
  ASSERT_EQ(len, 10u);
  ASSERT_EQ(skf.SKF_ReadFile(h, name, 0, 10, all, &len), SAR_OK);
  EXPECT_EQ(zeph_test::ToHex(all, 10), "0000000061626300" "0000");

  FILEATTRIBUTE info;
  ASSERT_EQ(skf.SKF_GetFileInfo(h, name, &info), SAR_OK);
  EXPECT_STREQ(info.FileName, "CertChain");
  EXPECT_EQ(info.FileSize, 10u);
  EXPECT_EQ(info.ReadRights, 0xFFu);
  EXPECT_EQ(info.WriteRights, 0x10u);
  char missing[] = "Nope", too_long[] = "0123456789012345678901234567890123";
  EXPECT_EQ(skf.SKF_GetFileInfo(h, missing, &info), SAR_FILE_NOT_EXIST);
  EXPECT_EQ(skf.SKF_DeleteFile(h, missing), SAR_FILE_NOT_EXIST);
  EXPECT_EQ(skf.SKF_CreateFile(h, too_long, 1, 0xFF, 0x10), SAR_NAMELENERR);
  char big[] = "Big";
  EXPECT_EQ(skf.SKF_CreateFile(h, big, 2048, 0xFF, 0x10), SAR_NO_ROOM) << "the device holds 2048 bytes";
  EXPECT_EQ(skf.SKF_CreateFile(h, big, 2038, 0xFF, 0x10), SAR_OK);
}

// The device layer's writer: delete (a missing file is normal), create at the
// content's length, write; then any reader, PIN or not, gets the bytes.
TEST_F(FileTest, WholeFileRewriteAndAnonymousRead) {
  HAPPLICATION h = As("R0x10", SECURE_USER_ACCOUNT);
  char name[] = "Version";
  for (const std::string &content : {std::string(100, 'x'), std::string("1.2.3")}) {
    const ULONG del = skf.SKF_DeleteFile(h, name);
    EXPECT_TRUE(del == SAR_OK || del == SAR_FILE_NOT_EXIST);
    const auto n = static_cast<ULONG>(content.size());
    ASSERT_EQ(skf.SKF_CreateFile(h, name, n, SECURE_EVERYONE_ACCOUNT, SECURE_USER_ACCOUNT), SAR_OK);
    ASSERT_EQ(skf.SKF_WriteFile(h, name, 0, reinterpret_cast<BYTE *>(const_cast<char *>(content.data())), n), SAR_OK);
  }
  HAPPLICATION anon = As("R0x10", 0);
  FILEATTRIBUTE info;
  ASSERT_EQ(skf.SKF_GetFileInfo(anon, name, &info), SAR_OK);
  ASSERT_EQ(info.FileSize, 5u);
  char buf[5];
  ULONG len = sizeof buf;
  ASSERT_EQ(skf.SKF_ReadFile(anon, name, 0, info.FileSize, reinterpret_cast<BYTE *>(buf), &len), SAR_OK);
  EXPECT_EQ(std::string(buf, len), "1.2.3");
  std::string out;
  ASSERT_EQ(Tool("read-file --serial 0123ABCD --app R0x10 --file Version", &out), 0);
  EXPECT_EQ(out, "1.2.3");

  char second[] = "CertChain";
  ASSERT_EQ(skf.SKF_CreateFile(h, second, 1, 0xFF, 0x10), SAR_OK);
  ULONG size = 0;
  ASSERT_EQ(skf.SKF_EnumFiles(anon, nullptr, &size), SAR_OK);
  std::vector<char> list(size);
  ASSERT_EQ(skf.SKF_EnumFiles(anon, list.data(), &size), SAR_OK);
  EXPECT_EQ(Names(list), (std::vector<std::string>{"Version", "CertChain"}));
}

}  // namespace
}  // namespace sk_test
