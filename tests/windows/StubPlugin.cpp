// The four exports, every action answered with empty text: qxhost's cases.
#include <cstddef>

extern "C" {
__declspec(dllexport) void* qx_plugin_new(int size) {
  return new char[size > 0 ? std::size_t(size) : 0];
}
__declspec(dllexport) int qx_plugin_init(void*, void*) { return 0; }
__declspec(dllexport) int qx_plugin_action(const char*, const char*, char** result) {
  *result = new char[1]{0};
  return 0;
}
__declspec(dllexport) void qx_plugin_delete(void* buffer) { delete[] static_cast<char*>(buffer); }
}
