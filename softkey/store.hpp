// The software key's devices on disk. A device is a folder under the root
// folder; its whole state is one JSON file (device_json.hpp), replaced
// atomically on every change under an exclusive lock on the device, so a
// killed process or a second process never sees a half-written device.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "model.hpp"

namespace softkey {

// Paths. The root comes from ZEPH_SOFTKEY_ROOT, else a per-user folder.
std::string RootDir();
bool IsDeviceName(std::string_view name);  // a plain, safe folder name
std::string DeviceDir(const std::string &root, const std::string &name);
enum class Presence { kMissing, kUnplugged, kPresent };
Presence DevicePresence(const std::string &dir);
// Device names under the root in name order; only present ones on request.
std::vector<std::string> ListDevices(const std::string &root, bool present_only);

// A snapshot of the device's current state, re-read only when the file
// changed. SAR_OK, SAR_DEVICE_REMOVED (also when unplugged, unless asked
// otherwise), SAR_READFILEERR or SAR_FILEERR.
ULONG LoadDevice(const std::string &dir, std::shared_ptr<const Device> &out_device, bool even_unplugged = false);
// Read-modify-write under the device lock. The change returns a status; only
// SAR_OK is saved. Writing fails with SAR_WRITEFILEERR.
ULONG UpdateDevice(const std::string &dir, const std::function<ULONG(Device &)> &change);
// Administration (the utility): a new device folder, its removal, the plug
// marker. Statuses as above; creating over an existing device fails.
ULONG CreateDevice(const std::string &dir, const Device &d);
ULONG DeleteDevice(const std::string &dir);
ULONG SetPlugged(const std::string &dir, bool plugged);

}  // namespace softkey
