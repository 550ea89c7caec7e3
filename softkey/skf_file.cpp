// Files of an application, with the read and write rights given when they
// were created. A right admits the role logged in on the calling handle.
#include <cstring>
#include <vector>

#include "entry.hpp"

using namespace softkey;

namespace {

ULONG ReadFileName(const char *p, std::string_view &out) {
  switch (ReadText(p, kMaxFileName, out)) {
    case Text::kNull:
      return SAR_INVALIDPARAMERR;
    case Text::kOk:
      return SAR_OK;
    default:
      return SAR_NAMELENERR;
  }
}

// Finds a file the caller may change, in the device being changed.
ULONG WritableFile(Device &dev, const AppObj &obj, std::string_view name, File *&out) {
  Application *app = AppIn(dev, obj);
  ZEPH_ENSURE(app != nullptr, SAR_INVALIDHANDLEERR);
  out = app->FindFile(name);
  ZEPH_ENSURE(out != nullptr, SAR_FILE_NOT_EXIST);
  ZEPH_ENSURE(Allows(out->write_rights, obj.role), SAR_USER_NOT_LOGGED_IN);
  return SAR_OK;
}

}  // namespace

extern "C" {

ULONG SKF_CreateFile(HAPPLICATION hApplication, LPSTR szFileName, ULONG ulFileSize, ULONG ulReadRights,
                     ULONG ulWriteRights) {
  return Call("SKF_CreateFile", H(hApplication), nullptr, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApplication, a));
    std::string_view name;
    ZEPH_TRY(ReadFileName(szFileName, name));
    ZEPH_ENSURE(ulReadRights <= 0xFF && ulWriteRights <= 0xFF, SAR_INVALIDPARAMERR);
    ZEPH_ENSURE(Allows(a.app->create_file_rights, a.obj->role), SAR_USER_NOT_LOGGED_IN);
    return Change(a.obj->dir, [&](Device &dev) -> ULONG {
      Application *app = AppIn(dev, *a.obj);
      ZEPH_ENSURE(app != nullptr, SAR_INVALIDHANDLEERR);
      ZEPH_ENSURE(app->FindFile(name) == nullptr, SAR_FILE_ALREADY_EXIST);
      ZEPH_ENSURE(app->files.size() < kMaxFiles && dev.UsedSpace() + ulFileSize <= dev.total_space, SAR_NO_ROOM);
      File f;
      f.name = std::string(name);
      f.read_rights = ulReadRights;
      f.write_rights = ulWriteRights;
      f.data.assign(ulFileSize, 0);
      app->files.push_back(std::move(f));
      return SAR_OK;
    });
  });
}

ULONG SKF_DeleteFile(HAPPLICATION hApplication, LPSTR szFileName) {
  return Call("SKF_DeleteFile", H(hApplication), nullptr, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApplication, a));
    std::string_view name;
    ZEPH_TRY(ReadFileName(szFileName, name));
    return Change(a.obj->dir, [&](Device &dev) -> ULONG {
      File *f = nullptr;
      ZEPH_TRY(WritableFile(dev, *a.obj, name, f));
      auto &files = dev.AppById(a.obj->app_id)->files;
      files.erase(files.begin() + (f - files.data()));
      return SAR_OK;
    });
  });
}

ULONG SKF_EnumFiles(HAPPLICATION hApplication, LPSTR szFileList, ULONG *pulSize) {
  return Call("SKF_EnumFiles", H(hApplication), nullptr, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApplication, a));
    return PutNamesOf(a.app->files, szFileList, pulSize);
  });
}

ULONG SKF_GetFileInfo(HAPPLICATION hApplication, LPSTR szFileName, FILEATTRIBUTE *pFileInfo) {
  return Call("SKF_GetFileInfo", H(hApplication), nullptr, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApplication, a));
    std::string_view name;
    ZEPH_TRY(ReadFileName(szFileName, name));
    ZEPH_ENSURE(pFileInfo != nullptr, SAR_INVALIDPARAMERR);
    const File *f = a.app->FindFile(name);
    ZEPH_ENSURE(f != nullptr, SAR_FILE_NOT_EXIST);
    FILEATTRIBUTE info;
    std::memset(&info, 0, sizeof info);
    std::memcpy(info.FileName, f->name.data(), f->name.size());
    info.FileSize = static_cast<ULONG>(f->data.size());
    info.ReadRights = f->read_rights;
    info.WriteRights = f->write_rights;
    std::memcpy(pFileInfo, &info, sizeof info);
    return SAR_OK;
  });
}

ULONG SKF_ReadFile(HAPPLICATION hApplication, LPSTR szFileName, ULONG ulOffset, ULONG ulSize, BYTE *pbOutData,
                   ULONG *pulOutLen) {
  return Call("SKF_ReadFile", H(hApplication), nullptr, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApplication, a));
    std::string_view name;
    ZEPH_TRY(ReadFileName(szFileName, name));
    ZEPH_ENSURE(pulOutLen != nullptr, SAR_INVALIDPARAMERR);
    const File *f = a.app->FindFile(name);
    ZEPH_ENSURE(f != nullptr, SAR_FILE_NOT_EXIST);
    ZEPH_ENSURE(Allows(f->read_rights, a.obj->role), SAR_USER_NOT_LOGGED_IN);
    ZEPH_ENSURE(ulOffset <= f->data.size(), SAR_INDATALENERR);
    // Reading past the end yields what is there.
    const size_t n = std::min<size_t>(ulSize, f->data.size() - ulOffset);
    return PutBytes(ByteSpan(f->data.data() + ulOffset, n), pbOutData, pulOutLen);
  });
}

ULONG SKF_WriteFile(HAPPLICATION hApplication, LPSTR szFileName, ULONG ulOffset, BYTE *pbData, ULONG ulSize) {
  return Call("SKF_WriteFile", H(hApplication), nullptr, [&]() -> ULONG {
    AppRef a;
    ZEPH_TRY(ResolveApp(hApplication, a));
    std::string_view name;
    ZEPH_TRY(ReadFileName(szFileName, name));
    ZEPH_ENSURE(pbData != nullptr || ulSize == 0, SAR_INVALIDPARAMERR);
    // Check before copying the caller's bytes: the size might be anything.
    const File *current = a.app->FindFile(name);
    ZEPH_ENSURE(current != nullptr, SAR_FILE_NOT_EXIST);
    ZEPH_ENSURE(Allows(current->write_rights, a.obj->role), SAR_USER_NOT_LOGGED_IN);
    ZEPH_ENSURE(uint64_t{ulOffset} + ulSize <= current->data.size(), SAR_INDATALENERR);
    const Bytes data(pbData, pbData + ulSize);
    return Change(a.obj->dir, [&](Device &dev) -> ULONG {
      File *f = nullptr;
      ZEPH_TRY(WritableFile(dev, *a.obj, name, f));
      ZEPH_ENSURE(uint64_t{ulOffset} + data.size() <= f->data.size(), SAR_INDATALENERR);
      std::copy(data.begin(), data.end(), f->data.begin() + ulOffset);
      return SAR_OK;
    });
  });
}

}  // extern "C"
