#pragma once
// The host side of a formatter plug-in: loads the module and finds its formatters.
#include <cstdint>
#include <string>

#include "host_sdk/plugin_api.h"

class PluginModule {
 public:
  PluginModule() = default;
  ~PluginModule();
  PluginModule(const PluginModule&) = delete;
  PluginModule& operator=(const PluginModule&) = delete;

  // Loads the module and resolves the three entry points; *error says why not.
  bool open(const std::string& path, std::string* error = nullptr);
  bool isOpen() const { return create_ != nullptr; }

  uint32_t count() const { return count_ ? count_() : 0; }
  void info(uint32_t index, uint32_t* maker, const uint32_t** format, uint32_t* version) const;
  CAFormatter* create(uint32_t maker, uint32_t format) const { return create_ ? create_(maker, format) : nullptr; }

  // The maker of the first formatter that writes `format`; false when there is none.
  bool findMaker(uint32_t format, uint32_t* maker) const;
  // A new formatter for `format`, or null.
  CAFormatter* createFor(uint32_t format) const;

 private:
  void* handle_ = nullptr;
  BXGetNumberFormattersFn count_ = nullptr;
  BXGetFormatterInfoFn info_ = nullptr;
  CreateFormatterFn create_ = nullptr;
};
