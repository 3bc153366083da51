#include "Brelo/Display.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <ostream>
#include <sstream>
#include <unordered_map>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/Loco.h"
#include "Brelo/UtilText.h"

namespace Brelo {

namespace Impl {

std::ostream& DisplaySubStringBase::addToStream(std::ostream& stream, char const* text,
                                                unsigned long start, unsigned long end) {
  return stream.write(text + start, static_cast<std::streamsize>(end - start));
}

std::string DisplaySubStringBase::toString(char const* text, unsigned long start,
                                           unsigned long end) {
  std::ostringstream stream;
  addToStream(stream, text, start, end);
  return stream.str();
}

}  // namespace Impl

std::string typeName(char const* mangled) {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> const name(
      abi::__cxa_demangle(mangled, nullptr, nullptr, &status), &std::free);
  if (status != 0) return mangled;
  if (name == nullptr) {
    BRELO_FAIL("Brelo", "unable to demangle type {} status:{}", mangled, status);
  }
  return name.get();
}

namespace {

std::unordered_map<std::string, IntrospectionMap::Printer> printers;

}  // namespace

void IntrospectionMap::insert(std::string const& name, std::string (*printer)(void const*)) {
  Platform::LocoGuard const guard;
  printers[name] = printer;
}

IntrospectionMap::Printer IntrospectionMap::lookup(std::string const& name) {
  Platform::LocoGuard const guard;
  auto const found = printers.find(name);
  return found == printers.end() ? nullptr : found->second;
}

namespace Platform {

ValuePrinter::ValuePrinter(std::string name, std::uint32_t size)
    : name_(std::move(name)), size_(size) {}

ValuePrinter::~ValuePrinter() = default;

std::string ValuePrinter::customToString(void const* value) const {
  auto const printer = IntrospectionMap::lookup(name_);
  return printer == nullptr ? std::string() : printer(value);
}

std::string ValuePrinter::toString(void const* value) {
  std::string const text = customToString(value);
  return text.empty() ? dumpHex(value, static_cast<int>(size_)) : text;
}

}  // namespace Platform

}  // namespace Brelo
