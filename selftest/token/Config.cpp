#include "selftest/token/Config.h"

#include <openssl/bio.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace {

struct Credential {
  const char *name, *key, *certificate;
};

constexpr Credential credentials[] = {
#include "selftest/token/Credentials.inc"
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

CK_ULONG number(const std::string& text) {
  return std::stoul(text, nullptr, 0);
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

std::string unescape(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool escaped = text.compare(i, 2, "\\x") == 0;
    bytes += escaped ? static_cast<char>(number("0x" + text.substr(i + 2, 2))) : text[i];
    if (escaped) i += 3;
  }
  return bytes;
}

// A key pair is a private key, a public key and a certificate, all of one CKA_ID.
void addKey(Slot& slot, const std::string& value) {
  const std::vector<std::string> words = split(value, ',');
  const auto has = [&](const char* word) { return std::ranges::count(words, word) != 0; };
  if (slot.defaultObjects) slot.objects.clear();
  slot.defaultObjects = false;
  if (words[0] == "none") return;
  const std::string id(1, static_cast<char>(slot.objects.size() + 1));
  const Key key{words[0], has("context") || has("always"), has("always")};
  slot.objects.push_back({CKO_PRIVATE_KEY, id, words[0], {}, key});
  if (!has("nopublic")) slot.objects.push_back({CKO_PUBLIC_KEY, id, words[0], {}, {}});
  std::string certificate = words[0];
  for (const std::string& word : words) {
    if (word.starts_with("cert=")) certificate = word.substr(5);
  }
  if (has("nocert")) return;
  slot.objects.push_back({CKO_CERTIFICATE, id, words[0], certificateValue(certificate), {}});
}

void addCertificate(Slot& slot, const std::string& value) {
  const auto comma = std::min(value.find(','), value.size());
  const std::string label = comma < value.size() ? unescape(value.substr(comma + 1)) : "";
  slot.objects.push_back({CKO_CERTIFICATE,
                          std::string(1, '\x40'),
                          label,
                          certificateValue(value.substr(0, comma)),
                          {}});
}

const std::map<std::string, std::string Slot::*> texts{
    {"description", &Slot::description},
    {"manufacturer", &Slot::manufacturer},
    {"label", &Slot::label},
    {"maker", &Slot::maker},
    {"model", &Slot::model},
    {"pin", &Slot::pin},
};

const std::map<std::string, bool Slot::*> switches{
    {"setpin", &Slot::maySetPin},
    {"spoil", &Slot::spoil},
    {"pad", &Slot::pad},
    {"hold", &Slot::hold},
};

const std::map<std::string, void (*)(Slot&, const std::string&)> slotDirectives{
    {"empty", [](Slot& s, const std::string&) { s.present = false; }},
    {"flags", [](Slot& s, const std::string& v) { s.flags = number(v); }},
    {"tries", [](Slot& s, const std::string& v) { s.tries = static_cast<int>(number(v)); }},
    {"handles", [](Slot& s, const std::string& v) { s.firstHandle = number(v); }},
    {"key", addKey},
    {"certificate", addCertificate},
    {"mechanisms",
     [](Slot& s, const std::string& v) {
       s.mechanisms.clear();
       for (const std::string& part : split(v, ',')) s.mechanisms.push_back(number(part));
     }},
};

// "A.B", "A@B": both numbers.
std::pair<CK_ULONG, CK_ULONG> numbers(const std::string& text) {
  return {number(text), number(text.substr(text.find_first_of(".@") + 1))};
}

Slot newSlot(CK_SLOT_ID id) {
  Slot slot;
  slot.id = id;
  addKey(slot, "rsa2048a");
  slot.defaultObjects = true;
  return slot;
}

bool applyToSlot(Slot& slot, const std::string& name, const std::string& value) {
  if (const auto text = texts.find(name); text != texts.end()) {
    slot.*text->second = unescape(value);
  } else if (const auto on = switches.find(name); on != switches.end()) {
    slot.*on->second = true;
  } else if (const auto found = slotDirectives.find(name); found != slotDirectives.end()) {
    found->second(slot, value);
  } else {
    return false;
  }
  return true;
}

void apply(Config& config, const std::string& line, bool& ownSlots) {
  const auto equals = std::min(line.find('='), line.size());
  const std::string name = line.substr(0, equals);
  const std::string value = line.substr(std::min(equals + 1, line.size()));
  if (name.starts_with("C_")) {
    config.overrides[name] = value;
  } else if (name == "slot") {
    if (!ownSlots) config.slots.clear();
    ownSlots = true;
    if (value != "none") config.slots.push_back(newSlot(number(value)));
  } else if (name == "log") {
    config.log = value;
  } else if (name == "library") {
    config.library = unescape(value);
  } else if (name == "version") {
    const auto [major, minor] = numbers(value);
    config.version = {static_cast<CK_BYTE>(major), static_cast<CK_BYTE>(minor)};
  } else if (name == "nolist") {
    config.noList = true;
  } else if (name == "null") {
    config.nullEntry = value;
  } else if (name == "random") {
    config.random.emplace(static_cast<unsigned>(number(value)));
  } else if (name == "event") {
    const auto [slot, delay] = numbers(value);
    config.events.push_back({slot, std::chrono::milliseconds(delay)});
  } else if (name == "eventfile") {
    config.eventFile = value;
  } else if (config.slots.empty() || !applyToSlot(config.slots.back(), name, value)) {
    reject(line);
  }
}

}  // namespace

Config readConfig() {
  Config config;
  config.slots.push_back(newSlot(1));
  const char* text = std::getenv("KESTREL_TOKEN");
  std::string directivesText = text == nullptr ? "" : text;
  std::ranges::replace(directivesText, ';', '\n');
  bool ownSlots = false;
  for (const std::string& line : split(directivesText, '\n')) {
    if (!line.empty()) apply(config, line, ownSlots);
  }
  return config;
}

std::string certificateValue(const std::string& name) {
  if (name == "empty") return "";
  if (name == "garbage") return "this is no certificate";
  if (name.find_first_not_of("0123456789") == std::string::npos)
    return std::string(number(name), 'x');
  BIO* pem = BIO_new_mem_buf(credential(name).certificate, -1);
  unsigned char* der = nullptr;
  long length = 0;
  PEM_bytes_read_bio(&der, &length, nullptr, PEM_STRING_X509, pem, nullptr, nullptr);
  BIO_free(pem);
  std::string value(reinterpret_cast<char*>(der), static_cast<std::size_t>(length));
  OPENSSL_free(der);
  return value;
}

const char* privateKeyPem(const std::string& name) {
  return credential(name).key;
}
