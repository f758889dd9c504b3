// The version resources of the shipped binaries (ship/bin, what the
// archive takes) through GetFileVersionInfoW and VerQueryValueW.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

TEST(VersionResource, NamesTheProductVersionAndMaker) {
  unsigned major = 0, minor = 0, patch = 0;
  ASSERT_EQ(3, std::sscanf(QX_EXPECTED_VERSION, "%u.%u.%u", &major, &minor, &patch));
  for (std::wstring file :
       {L"QXAttentionPlugin.dll", L"qxhost.exe", L"fusion-sim.exe", L"logread.exe"}) {
    SCOPED_TRACE(testing::PrintToString(file));
    const DWORD type = file.ends_with(L".dll") ? VFT_DLL : VFT_APP;
    const std::wstring path = testsupport::ExeDir() + L"..\\ship\\bin\\" + file;
    std::vector<char> data(GetFileVersionInfoSizeW(path.c_str(), nullptr));
    ASSERT_FALSE(data.empty()) << "no version resource, error " << GetLastError();
    ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(data.size()), data.data()));
    const auto query = [&](const std::wstring& key) {
      void* value = nullptr;
      UINT length = 0;
      return VerQueryValueW(data.data(), key.c_str(), &value, &length) && length ? value : nullptr;
    };
    // The block the translation table names.
    const auto text = [&](const wchar_t* name) {
      const void* value = query(std::wstring(L"\\StringFileInfo\\040904b0\\") + name);
      return std::wstring(value ? static_cast<const wchar_t*>(value) : L"<missing>");
    };
    EXPECT_EQ(L"Vantoq", text(L"CompanyName"));
    EXPECT_EQ(L"QX Attention Plug-in", text(L"ProductName"));
    EXPECT_EQ(L"" QX_EXPECTED_VERSION, text(L"FileVersion"));
    EXPECT_EQ(L"" QX_EXPECTED_VERSION, text(L"ProductVersion"));
    EXPECT_EQ(file, text(L"OriginalFilename"));
    EXPECT_NE(L"<missing>", text(L"FileDescription"));
    EXPECT_EQ(std::wstring::npos, text(L"FileDescription").find(L"TEST"));
    const auto* translation = static_cast<const WORD*>(query(L"\\VarFileInfo\\Translation"));
    ASSERT_NE(nullptr, translation);
    EXPECT_EQ(0x0409, translation[0]);
    EXPECT_EQ(1200, translation[1]);
    // The fixed part agrees with the strings.
    const auto* fixed = static_cast<const VS_FIXEDFILEINFO*>(query(L"\\"));
    ASSERT_NE(nullptr, fixed);
    for (DWORD ms : {fixed->dwFileVersionMS, fixed->dwProductVersionMS})
      EXPECT_EQ((major << 16) | minor, ms);
    for (DWORD ls : {fixed->dwFileVersionLS, fixed->dwProductVersionLS}) EXPECT_EQ(patch << 16, ls);
    EXPECT_EQ(type, fixed->dwFileType);
    EXPECT_EQ(0u, fixed->dwFileFlags & VS_FF_DEBUG);
  }
}

}  // namespace
