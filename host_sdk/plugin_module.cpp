#include "host_sdk/plugin_module.h"

#include <dlfcn.h>

PluginModule::~PluginModule() {
  if (handle_) dlclose(handle_);
}

bool PluginModule::open(const std::string& path, std::string* error) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    if (error) *error = std::string("cannot load the formatter module: ") + dlerror();
    return false;
  }
  auto count = reinterpret_cast<BXGetNumberFormattersFn>(dlsym(handle, "BXGetNumberFormatters"));
  auto info = reinterpret_cast<BXGetFormatterInfoFn>(dlsym(handle, "BXGetFormatterInfo"));
  auto create = reinterpret_cast<CreateFormatterFn>(dlsym(handle, "CreateFormatter"));
  if (!count || !info || !create) {
    if (error) *error = path + " is not a formatter module";
    dlclose(handle);
    return false;
  }
  if (handle_) dlclose(handle_);
  handle_ = handle;
  count_ = count;
  info_ = info;
  create_ = create;
  return true;
}

void PluginModule::info(uint32_t index, uint32_t* maker, const uint32_t** format, uint32_t* version) const {
  if (info_) info_(index, maker, format, version);
}

bool PluginModule::findMaker(uint32_t format, uint32_t* maker) const {
  for (uint32_t i = 0; i < count(); ++i) {
    uint32_t m = 0;
    const uint32_t* code = nullptr;
    info_(i, &m, &code, nullptr);
    if (code && *code == format) {
      if (maker) *maker = m;
      return true;
    }
  }
  return false;
}

CAFormatter* PluginModule::createFor(uint32_t format) const {
  uint32_t maker = 0;
  return findMaker(format, &maker) ? create(maker, format) : nullptr;
}
