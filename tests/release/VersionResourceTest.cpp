// The version resources of what the archive takes (ship/bin, ship/test) against
// CHANGELOG.md's newest released section (QX_CHANGELOG): a release build carries
// that number, a development build that number or a newer one with "-dev+",
// its commit and the pre-release flag.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "TestSupport.h"

TEST(VersionResource, NamesTheReleasedVersionOrSaysDevelopment) {
  const char* changelog = std::getenv("QX_CHANGELOG");
  const std::string text =
      changelog ? testsupport::ReadFileBytes(testsupport::Widen(changelog)) : "";
  std::smatch newest;
  ASSERT_TRUE(std::regex_search(text, newest,
                                std::regex(R"(\n## \[(\d+)\.(\d+)\.(\d+)\] - \d{4}-\d\d-\d\d)")))
      << "no released section in QX_CHANGELOG";
  const std::tuple released{std::stoul(newest[1]), std::stoul(newest[2]), std::stoul(newest[3])};
  for (std::wstring file :
       {L"bin\\QXAttentionPlugin.dll", L"bin\\qxhost.exe", L"bin\\fusion-sim.exe",
        L"bin\\logread.exe", L"test\\QXAttentionPlugin-TEST-noauth.dll"}) {
    SCOPED_TRACE(testing::PrintToString(file));
    const std::wstring path = testsupport::ExeDir() + L"..\\ship\\" + file;
    const bool testBuild = file.starts_with(L"test\\");
    std::vector<char> data(GetFileVersionInfoSizeW(path.c_str(), nullptr));
    ASSERT_FALSE(data.empty()) << "no version resource, error " << GetLastError();
    ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, DWORD(data.size()), data.data()));
    const auto query = [&](const std::wstring& key) {
      void* value = nullptr;
      UINT length = 0;
      return VerQueryValueW(data.data(), key.c_str(), &value, &length) && length ? value : nullptr;
    };
    const auto string = [&](const wchar_t* name) {
      const void* value = query(std::wstring(L"\\StringFileInfo\\040904b0\\") + name);
      return std::wstring(value ? static_cast<const wchar_t*>(value) : L"<missing>");
    };
    const auto* fixed = static_cast<const VS_FIXEDFILEINFO*>(query(L"\\"));
    ASSERT_NE(nullptr, fixed);
    const unsigned long major = HIWORD(fixed->dwFileVersionMS),
                        minor = LOWORD(fixed->dwFileVersionMS),
                        patch = HIWORD(fixed->dwFileVersionLS);
    const std::tuple version{major, minor, patch};
    const std::wstring number =
        std::to_wstring(major) + L"." + std::to_wstring(minor) + L"." + std::to_wstring(patch);
    std::wsmatch commit;
    const std::wstring comments = string(L"Comments");
    ASSERT_TRUE(std::regex_search(comments, commit, std::wregex(L"commit ([0-9a-f]{40})")))
        << testing::PrintToString(comments);
    if (fixed->dwFileFlags & VS_FF_PRERELEASE) {
      EXPECT_GE(version, released) << "older than the newest release";
      EXPECT_EQ(number + L"-dev+" + commit[1].str().substr(0, 12), string(L"FileVersion"));
    } else {
      EXPECT_EQ(released, version) << "a release that CHANGELOG.md does not name";
      EXPECT_EQ(number, string(L"FileVersion"));
    }
    EXPECT_EQ(string(L"FileVersion"), string(L"ProductVersion"));
    EXPECT_EQ(fixed->dwFileVersionMS, fixed->dwProductVersionMS);
    EXPECT_EQ(fixed->dwFileVersionLS, fixed->dwProductVersionLS);
    EXPECT_EQ(L"Vantoq", string(L"CompanyName"));
    EXPECT_EQ(L"QX Attention Plug-in", string(L"ProductName"));
    EXPECT_NE(std::wstring::npos, string(L"LegalCopyright").find(L"MIT"));
    EXPECT_EQ(file.substr(file.find(L'\\') + 1), string(L"OriginalFilename"));
    EXPECT_EQ(testBuild, string(L"FileDescription").find(L"TEST") != std::wstring::npos);
    EXPECT_EQ(testBuild, comments.find(L"NOT FOR REDISTRIBUTION") != std::wstring::npos);
    EXPECT_EQ(file.ends_with(L".dll") ? DWORD(VFT_DLL) : DWORD(VFT_APP), fixed->dwFileType);
    EXPECT_EQ(0u, fixed->dwFileFlags & VS_FF_DEBUG);
  }
}
