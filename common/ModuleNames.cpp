#include "common/ModuleNames.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>

namespace kestrel {

namespace {

namespace fs = std::filesystem;

std::string nameOf(const fs::path& file) {
  std::string name = file.filename();
  if (const auto end = name.find(".so"); end != std::string::npos && end != 0) name.resize(end);
  if (name.starts_with("lib") && name.size() > 3) name.erase(0, 3);
  if (name.starts_with('.')) name[0] = '_';
  // It becomes the name of a folder and stands in every line of a terminal.
  for (char& c : name) {
    if (static_cast<unsigned char>(c) <= ' ' || c == 127) c = '_';
  }
  return name;
}

NamedModule moduleAt(std::string name, const std::string& path) {
  std::error_code error;
  if (path.empty()) throw std::runtime_error("a module has no path");
  NamedModule module{std::move(name), fs::canonical(path, error), path, ""};
  if (!error) return module;
  module.path = fs::absolute(path);
  module.missing = fmt::format("{}: {}", path, error.message());
  return module;
}

// The components of a path's folder, the innermost first.
std::vector<std::string> foldersOf(const fs::path& path) {
  std::vector<std::string> folders;
  for (const fs::path& part : path.parent_path()) folders.insert(folders.begin(), part.string());
  return folders;
}

// What tells modules of one name apart: the innermost folders in which all differ, else numbers.
std::vector<std::string> distinctions(const std::vector<NamedModule*>& modules) {
  std::vector<std::vector<std::string>> folders;
  std::size_t depth = ~std::size_t{0};
  for (const NamedModule* module : modules) {
    folders.push_back(foldersOf(module->path));
    depth = std::min(depth, folders.back().size());
  }
  std::vector<std::string> marks(modules.size());
  for (std::size_t level = 0; level < depth; ++level) {
    for (std::size_t i = 0; i < marks.size(); ++i) marks[i] = nameOf(folders[i][level]);
    if (std::set(marks.begin(), marks.end()).size() == marks.size()) return marks;
  }
  for (std::size_t i = 0; i < marks.size(); ++i) marks[i] = std::to_string(i + 1);
  return marks;
}

// NAME=MODULE names the module, unless what stands before the '=' is part of its path.
NamedModule readArgument(const std::string& argument, std::set<std::string>& given) {
  const std::size_t equals = argument.find('=');
  if (equals == std::string::npos || argument.find('/') < equals) return moduleAt("", argument);
  std::string name = argument.substr(0, equals);
  if (name.empty() || name.starts_with('.') ||
      std::ranges::any_of(name, [](unsigned char c) { return c < ' ' || c == 127; })) {
    throw std::runtime_error(fmt::format("{}: not a name for a module", argument));
  }
  if (!given.insert(name).second) throw std::runtime_error(fmt::format("{}: given twice", name));
  return moduleAt(name, argument.substr(equals + 1));
}

}  // namespace

std::vector<NamedModule> nameModules(const std::vector<std::string>& arguments) {
  std::set<std::string> taken;
  std::vector<NamedModule> modules;
  modules.reserve(arguments.size());
  for (const std::string& argument : arguments) modules.push_back(readArgument(argument, taken));
  if (!modules.empty() &&
      std::ranges::none_of(modules, &std::string::empty, &NamedModule::missing)) {
    throw std::runtime_error(modules.front().missing);
  }
  std::map<std::string, std::vector<NamedModule*>> unnamed;
  for (NamedModule& module : modules) {
    if (module.name.empty()) unnamed[nameOf(module.path)].push_back(&module);
  }
  for (const auto& [name, group] : unnamed) {
    const std::vector<std::string> marks = distinctions(group);
    for (std::size_t i = 0; i < group.size(); ++i) {
      const std::string base = group.size() == 1 ? name : fmt::format("{}-{}", name, marks[i]);
      group[i]->name = base;
      for (int number = 2; !taken.insert(group[i]->name).second; ++number) {
        group[i]->name = fmt::format("{}-{}", base, number);
      }
    }
  }
  return modules;
}

}  // namespace kestrel
