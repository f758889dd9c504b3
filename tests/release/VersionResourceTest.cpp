// The version resources of the shipped binaries (ship/bin and the test build in
// ship/test, what the archive takes) through GetFileVersionInfoW and
// VerQueryValueW, judged against CHANGELOG.md (QX_CHANGELOG): the newest
// released section names the version. A release build carries exactly that
// number; a development build that number or a newer one, with "-dev+" and
// its commit, and the pre-release flag.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

struct Version {
  unsigned major = 0, minor = 0, patch = 0;
  unsigned long long Key() const { return (1ull * major << 32) | (minor << 16) | patch; }
};

Version NewestReleased() {
  const char* path = std::getenv("QX_CHANGELOG");
  const std::string text = path ? testsupport::ReadFileBytes(testsupport::Widen(path)) : "";
  std::smatch m;
  if (!std::regex_search(text, m,
                         std::regex(R"(\n## \[(\d+)\.(\d+)\.(\d+)\] - \d{4}-\d\d-\d\d)"))) {
    ADD_FAILURE() << "no released section in QX_CHANGELOG: " << (path ? path : "(not set)");
    return {};
  }
  return {unsigned(std::stoul(m[1])), unsigned(std::stoul(m[2])), unsigned(std::stoul(m[3]))};
}

TEST(VersionResource, NamesTheReleasedVersionOrSaysDevelopment) {
  const Version released = NewestReleased();
  const std::wstring ship = testsupport::ExeDir() + L"..\\ship\\";
  for (std::wstring file :
       {L"bin\\QXAttentionPlugin.dll", L"bin\\qxhost.exe", L"bin\\fusion-sim.exe",
        L"bin\\logread.exe", L"test\\QXAttentionPlugin-TEST-noauth.dll"}) {
    SCOPED_TRACE(testing::PrintToString(file));
    const bool testBuild = file.starts_with(L"test\\");
    std::vector<char> data(GetFileVersionInfoSizeW((ship + file).c_str(), nullptr));
    ASSERT_FALSE(data.empty()) << "no version resource, error " << GetLastError();
    ASSERT_TRUE(GetFileVersionInfoW((ship + file).c_str(), 0, DWORD(data.size()), data.data()));
    const auto query = [&](const std::wstring& key) {
      void* value = nullptr;
      UINT length = 0;
      return VerQueryValueW(data.data(), key.c_str(), &value, &length) && length ? value : nullptr;
    };
    const auto text = [&](const wchar_t* name) {
      const void* value = query(std::wstring(L"\\StringFileInfo\\040904b0\\") + name);
      return std::wstring(value ? static_cast<const wchar_t*>(value) : L"<missing>");
    };
    const auto* fixed = static_cast<const VS_FIXEDFILEINFO*>(query(L"\\"));
    ASSERT_NE(nullptr, fixed);
    const Version own{HIWORD(fixed->dwFileVersionMS), LOWORD(fixed->dwFileVersionMS),
                      HIWORD(fixed->dwFileVersionLS)};
    const std::wstring number = std::to_wstring(own.major) + L"." + std::to_wstring(own.minor) +
                                L"." + std::to_wstring(own.patch);
    std::wsmatch commit;
    const std::wstring comments = text(L"Comments");
    ASSERT_TRUE(std::regex_search(comments, commit, std::wregex(L"commit ([0-9a-f]{40})")))
        << testing::PrintToString(comments);
    if (fixed->dwFileFlags & VS_FF_PRERELEASE) {
      EXPECT_GE(own.Key(), released.Key()) << "older than the newest release";
      EXPECT_EQ(number + L"-dev+" + commit[1].str().substr(0, 12), text(L"FileVersion"));
    } else {
      EXPECT_EQ(released.Key(), own.Key()) << "a release that CHANGELOG.md does not name";
      EXPECT_EQ(number, text(L"FileVersion"));
    }
    EXPECT_EQ(text(L"FileVersion"), text(L"ProductVersion"));
    EXPECT_EQ(fixed->dwFileVersionMS, fixed->dwProductVersionMS);
    EXPECT_EQ(fixed->dwFileVersionLS, fixed->dwProductVersionLS);
    EXPECT_EQ(L"Vantoq", text(L"CompanyName"));
    EXPECT_EQ(L"QX Attention Plug-in", text(L"ProductName"));
    EXPECT_NE(std::wstring::npos, text(L"LegalCopyright").find(L"MIT"));
    EXPECT_EQ(file.substr(file.find(L'\\') + 1), text(L"OriginalFilename"));
    EXPECT_EQ(testBuild, text(L"FileDescription").find(L"TEST") != std::wstring::npos);
    EXPECT_EQ(testBuild, comments.find(L"NOT FOR REDISTRIBUTION") != std::wstring::npos);
    EXPECT_EQ(file.ends_with(L".dll") ? DWORD(VFT_DLL) : DWORD(VFT_APP), fixed->dwFileType);
    EXPECT_EQ(0u, fixed->dwFileFlags & VS_FF_DEBUG);
  }
}

}  // namespace
