#include "token/Config.h"

#include <openssl/bio.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace kestrel::token {

namespace {

struct Credential {
  const char *name, *pem;  // of the private key and its certificate
};

constexpr Credential credentials[] = {
#include "Credentials.inc"
};

[[noreturn]] void reject(const std::string& text) {
  std::fprintf(stderr, "software token: what is '%s'?\n", text.c_str());
  std::abort();
}

const Credential& credential(const std::string& name) {
  const auto* found = std::ranges::find(credentials, name, &Credential::name);
  if (found == std::end(credentials)) reject(name);
  return *found;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

// A key pair is a private key, a public key and a certificate, all of one CKA_ID.
void addKey(Slot& slot, const std::string& value) {
  const std::vector<std::string> words = split(value, ',');
  const auto has = [&](const char* word) { return std::ranges::count(words, word) != 0; };
  if (!slot.settings.values.contains("key")) slot.objects.clear();  // the default one
  if (words[0] == "none") return;
  const std::string id(1, static_cast<char>(slot.objects.size() + 1));
  const Key key{words[0], has("context") || has("always"), has("always")};
  slot.objects.push_back({CKO_PRIVATE_KEY, id, words[0], {}, key});
  if (!has("nopublic")) slot.objects.push_back({CKO_PUBLIC_KEY, id, words[0], {}, key});
  std::string certificate = words[0];
  for (const std::string& word : words) {
    if (word.starts_with("cert=")) certificate = word.substr(5);
  }
  if (has("nocert")) return;
  slot.objects.push_back({CKO_CERTIFICATE, id, words[0], certificateValue(certificate)});
}

void addCertificate(Slot& slot, const std::string& value) {
  const auto comma = std::min(value.find(','), value.size());
  const Settings label{{{"label", value.substr(std::min(comma + 1, value.size()))}}};
  slot.objects.push_back(
      {CKO_CERTIFICATE, "@", label.text("label", ""), certificateValue(value.substr(0, comma))});
}

constexpr std::string_view moduleNames =
    " log library version nolist badlist null random eventfile load unload static ";
constexpr std::string_view slotNames =
    " empty flags description manufacturer label maker model pin tries setpin mechanisms key"
    " certificate handles refuse spoil pad hold ";

bool isOneOf(std::string_view names, const std::string& name) {
  return names.find(" " + name + " ") != std::string_view::npos;
}

Slot newSlot(const std::string& id) {
  Slot slot{.id = std::stoul(id, nullptr, 0)};
  addKey(slot, "rsa2048a");
  return slot;
}

void applyToSlot(Slot& slot, const std::string& name, const std::string& value) {
  if (name == "key") addKey(slot, value);
  if (name == "certificate") addCertificate(slot, value);
  slot.settings.values[name] = value;
  slot.pin = slot.settings.text("pin", slot.pin);
  slot.tries = static_cast<int>(slot.settings.number("tries", 3));
}

void apply(Config& config, const std::string& line) {
  const auto equals = std::min(line.find('='), line.size());
  const std::string name = line.substr(0, equals);
  const std::string value = line.substr(std::min(equals + 1, line.size()));
  if (name.starts_with("C_") || isOneOf(moduleNames, name)) {
    config.settings.values[name] = value;
  } else if (name == "slot") {
    if (!config.settings.has(name)) config.slots.clear();  // the default one
    config.settings.values[name] = value;
    if (value != "none") config.slots.push_back(newSlot(value));
  } else if (name == "event") {
    const auto delay = std::stoul(value.substr(value.find('@') + 1));
    config.events.emplace_back(std::stoul(value), std::chrono::milliseconds(delay));
  } else if (isOneOf(slotNames, name) && !config.slots.empty()) {
    applyToSlot(config.slots.back(), name, value);
  } else {
    reject(line);
  }
}

}  // namespace

std::string Settings::text(const std::string& name, const std::string& fallback) const {
  const auto found = values.find(name);
  if (found == values.end()) return fallback;
  const std::string& text = found->second;
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool escaped = text.compare(i, 2, "\\x") == 0;
    bytes += escaped ? static_cast<char>(std::stoul(text.substr(i + 2, 2), nullptr, 16)) : text[i];
    if (escaped) i += 3;
  }
  return bytes;
}

CK_ULONG Settings::number(const std::string& name, CK_ULONG fallback) const {
  return has(name) ? std::stoul(values.at(name), nullptr, 0) : fallback;
}

Config readConfig() {
  Config config;
  config.slots.push_back(newSlot("1"));
  const char* text = std::getenv("KESTREL_TOKEN");
  std::string directives = text == nullptr ? "" : text;
  std::ranges::replace(directives, ';', '\n');
  for (const std::string& line : split(directives, '\n')) {
    if (!line.empty()) apply(config, line);
  }
  const CK_ULONG seed = config.settings.number("random", 0);
  if (seed != 0) config.random.emplace(static_cast<unsigned>(seed));
  return config;
}

std::string certificateValue(const std::string& name) {
  if (name == "empty") return "";
  if (name == "garbage") return "this is no certificate";
  if (name.find_first_not_of("0123456789") == std::string::npos)
    return std::string(std::stoul(name), 'x');
  BIO* pem = BIO_new_mem_buf(credential(name).pem, -1);
  unsigned char* der = nullptr;
  long length = 0;
  PEM_bytes_read_bio(&der, &length, nullptr, PEM_STRING_X509, pem, nullptr, nullptr);
  BIO_free(pem);
  std::string value(reinterpret_cast<char*>(der), static_cast<std::size_t>(length));
  OPENSSL_free(der);
  return value;
}

const char* privateKeyPem(const std::string& name) {
  return credential(name).pem;
}

}  // namespace kestrel::token
