// The version resource of every shipped binary, read back the way Explorer and
// installers read it: GetFileVersionInfoW and VerQueryValueW.
//   release_version_tests [FOLDER]
// FOLDER holds the shipped DLL and programs; by default this program's folder
// (the build's bin/). check-package.sh runs it on the unpacked archive's bin/.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::wstring g_folder;
const std::pair<const wchar_t*, DWORD> kShipped[] = {
    {L"QXAttentionPlugin.dll", VFT_DLL}, {L"qxhost.exe", VFT_APP}, {L"fusion-sim.exe", VFT_APP}, {L"logread.exe", VFT_APP}};

std::wstring Widen(const char* text) { return std::wstring(text, text + std::strlen(text)); }

class VersionResource : public testing::TestWithParam<std::pair<const wchar_t*, DWORD>> {};

TEST_P(VersionResource, NamesTheProductVersionAndMaker) {
  const std::wstring path = g_folder + GetParam().first;
  std::vector<char> data(GetFileVersionInfoSizeW(path.c_str(), nullptr));
  ASSERT_FALSE(data.empty()) << "no version resource, error " << GetLastError();
  ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(data.size()), data.data()));
  const auto query = [&](const std::wstring& key) {
    void* value = nullptr;
    UINT length = 0;
    return VerQueryValueW(data.data(), key.c_str(), &value, &length) && length ? value : nullptr;
  };
  // The strings of the US English, Unicode block "040904b0", which the
  // translation table names.
  const auto text = [&](const wchar_t* name) {
    const void* value = query(std::wstring(L"\\StringFileInfo\\040904b0\\") + name);
    return std::wstring(value ? static_cast<const wchar_t*>(value) : L"<missing>");
  };
  EXPECT_EQ(L"Vantoq", text(L"CompanyName"));
  EXPECT_EQ(L"QX Attention Plug-in", text(L"ProductName"));
  EXPECT_EQ(Widen(QX_EXPECTED_VERSION), text(L"FileVersion"));
  EXPECT_EQ(Widen(QX_EXPECTED_VERSION), text(L"ProductVersion"));
  EXPECT_EQ(GetParam().first, text(L"OriginalFilename"));
  EXPECT_NE(L"<missing>", text(L"FileDescription"));
  EXPECT_EQ(std::wstring::npos, text(L"FileDescription").find(L"TEST")) << "the test variant's description";
  const auto* translation = static_cast<const WORD*>(query(L"\\VarFileInfo\\Translation"));
  ASSERT_NE(nullptr, translation);
  EXPECT_EQ(0x0409, translation[0]);
  EXPECT_EQ(1200, translation[1]);

  // The fixed part agrees with the strings.
  const auto* fixed = static_cast<const VS_FIXEDFILEINFO*>(query(L"\\"));
  ASSERT_NE(nullptr, fixed);
  EXPECT_EQ(0xFEEF04BDu, fixed->dwSignature);
  unsigned major = 0, minor = 0, patch = 0;
  ASSERT_EQ(3, std::sscanf(QX_EXPECTED_VERSION, "%u.%u.%u", &major, &minor, &patch));
  for (DWORD ms : {fixed->dwFileVersionMS, fixed->dwProductVersionMS}) EXPECT_EQ((major << 16) | minor, ms);
  for (DWORD ls : {fixed->dwFileVersionLS, fixed->dwProductVersionLS}) EXPECT_EQ(patch << 16, ls);
  EXPECT_EQ(GetParam().second, fixed->dwFileType);
  EXPECT_EQ(static_cast<DWORD>(VOS_NT_WINDOWS32), fixed->dwFileOS);
  EXPECT_EQ(0u, fixed->dwFileFlags & VS_FF_DEBUG);
}

INSTANTIATE_TEST_SUITE_P(Shipped, VersionResource, testing::ValuesIn(kShipped), [](const auto& info) {
  std::string name(info.param.first, info.param.first + wcslen(info.param.first));
  std::replace_if(name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
  return name;
});

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  wchar_t self[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  g_folder = argc > 1 ? Widen(argv[1]) + L"\\" : std::wstring(self).substr(0, std::wstring(self).find_last_of(L"\\/") + 1);
  std::printf("version resources in %ls\n", g_folder.c_str());
  return RUN_ALL_TESTS();
}
