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
// A root or device folder that is not the caller's own, or that group or
// others may write, is refused (SAR_FILEERR, no devices listed) with one
// line on stderr: whoever can write there can swap a device.
std::string RootDir();
// True when dir is missing or is a folder of the caller's, closed to writes
// by others; else false with the reason.
bool FolderIsSafe(const std::string &dir, std::string *why);
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
// LoadDevice for a new connection; it also removes, under the device lock,
// the temporaries of writers that were killed.
ULONG OpenDevice(const std::string &dir, std::shared_ptr<const Device> &out_device);
// Read-modify-write under the device lock. The change returns a status; only
// SAR_OK is saved. Writing fails with SAR_WRITEFILEERR.
ULONG UpdateDevice(const std::string &dir, const std::function<ULONG(Device &)> &change);
// The same, for a change that must have an intermediate state on disk before
// it goes on (a lowered PIN counter before the PIN is compared): save_step
// stores a state under the same lock; its failure should end the change.
using SaveStep = std::function<ULONG(const Device &)>;
using StepChange = std::function<ULONG(Device &, const SaveStep &save_step)>;
ULONG UpdateDeviceInSteps(const std::string &dir, const StepChange &change);
// Administration (the utility): a new device folder, its removal, the plug
// marker. Statuses as above; creating over an existing device fails.
ULONG CreateDevice(const std::string &dir, const Device &d);
ULONG DeleteDevice(const std::string &dir);
ULONG SetPlugged(const std::string &dir, bool plugged);

}  // namespace softkey
