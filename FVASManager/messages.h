// The module's fixed texts: URL prefixes, result messages and error codes.
#pragma once

// The URL prefixes of the service's modules, in this order.
inline constexpr const char* kModulePrefixes[] = {"kxp", "fvt", "kxs"};

inline constexpr char kEmptyText[] = "";
inline constexpr char kMsgFunctionNotFound[] = "Function not found";
inline constexpr char kMsgInvalidParameterType[] = "Invalid parameter type.";
inline constexpr char kMsgInvalidParameterCount[] = "Invalid parameter count.";
inline constexpr char kMsgUnsupportedBrowser[] =
    "Unsupported browser client. Please try Folivant plugin edition for chrome in Chrome!";
inline constexpr char kMsgModuleNotFound[] = "Module not found";
inline constexpr char kMsgIsUpdating[] = "is updating, please wait.";
inline constexpr char kMsgSignatureFailed[] = "The signature failed to be verified.";
inline constexpr char kMsgMissingServiceExe[] = "The file \"QuintarisService.exe\" is missing in the update package.";
inline constexpr char kMsgMissingSocketDll[] = "The file \"VireoSocket.dll\" is missing in the update package.";
inline constexpr char kMsgMissingImageDll[] = "The file \"VireoImage.dll\" is missing in the update package.";
inline constexpr char kMsgMissingUpdateExe[] = "The file \"QSUpdate.exe\" is missing in the update package.";
inline constexpr char kMsgUnzipFailed[] = "Failed to unzip file";
inline constexpr char kMsgCopyDirFailed[] = "Failed to copy dir";
inline constexpr char kMsgCreateUpdateFailed[] = "Create update progress failed.";
inline constexpr char kMsgUserSidEmpty[] = "User SID is empty.";

// Result codes of the manager's commands.
enum ManagerErrorCode {
  kErrFunctionNotFound = -2200,
  kErrInvalidParameterCount = -2202,
  kErrUnsupportedBrowser = -2205,
  kErrIsUpdating = -2373,
  kErrSignatureFailed = -2400,
  kErrUnzipFailed = -2405,
  kErrCopyDirFailed = -2406,
  kErrCreateUpdateFailed = -2407,
  kErrUserSidEmpty = -2408,
};

// The version tag a legacy client sends, and the protocol version it gets.
inline constexpr char kLegacyVersionTag[] = "fvasm_13000404";
inline constexpr char kLegacyProtocolVersion[] = "13,0,0,0404";
