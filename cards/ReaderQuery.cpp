#include "cards/ReaderQuery.h"

#include <reader.h>
#include <winscard.h>

#include <algorithm>

#include "cards/Atr.h"
#include "harness/Module.h"

namespace kestrel {

namespace {

// Calls `function` of PC/SC with these arguments, under its name: one that hangs is named like one
// into the module.
template <typename... Parameters>
LONG call(const char* name, LONG (*function)(Parameters...),
          std::type_identity_t<Parameters>... arguments) {
  return callForeign(name, [&] { return function(arguments...); });
}

// The connection to the PC/SC service. It is released once, also when it was never established.
class ServiceContext {
 public:
  ServiceContext()
      : status_(call("SCardEstablishContext", SCardEstablishContext, SCARD_SCOPE_USER, nullptr,
                     nullptr, &context_)) {}
  ~ServiceContext() { release(); }
  ServiceContext(const ServiceContext&) = delete;
  ServiceContext& operator=(const ServiceContext&) = delete;

  bool established() const { return status_ == SCARD_S_SUCCESS; }
  SCARDCONTEXT get() const { return context_; }

  // Whether the service let go of the context.
  bool release() {
    if (!released_) status_ = call("SCardReleaseContext", SCardReleaseContext, context_);
    released_ = true;
    return status_ == SCARD_S_SUCCESS;
  }

 private:
  SCARDCONTEXT context_ = 0;
  LONG status_;
  bool released_ = false;
};

// The card in a reader, shared with whoever else uses it and left as it is.
class CardConnection {
 public:
  CardConnection(SCARDCONTEXT context, const ReaderName& reader)
      : status_(call("SCardConnect", SCardConnect, context, reader.data(), SCARD_SHARE_SHARED,
                     SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &card_, &protocol_)) {}
  ~CardConnection() { disconnect(); }
  CardConnection(const CardConnection&) = delete;
  CardConnection& operator=(const CardConnection&) = delete;

  bool connected() const { return status_ == SCARD_S_SUCCESS; }
  SCARDHANDLE get() const { return card_; }

  // Whether there was a connection and it is now given up in good order.
  bool disconnect() {
    if (!connected()) return false;
    status_ = SCARD_W_REMOVED_CARD;  // nothing to disconnect again
    return call("SCardDisconnect", SCardDisconnect, card_, SCARD_LEAVE_CARD) == SCARD_S_SUCCESS;
  }

 private:
  SCARDHANDLE card_ = 0;
  DWORD protocol_ = 0;
  LONG status_;
};

struct Atr {
  std::array<BYTE, maxAtrLength> bytes{};
  DWORD length = maxAtrLength;
};

bool findReader(const ServiceContext& service, std::uint32_t readerIndex, ReaderName& name) {
  std::array<char, 512> list{};
  DWORD length = list.size();
  const LONG status =
      call("SCardListReaders", SCardListReaders, service.get(), nullptr, list.data(), &length);
  if (status != SCARD_S_SUCCESS) return false;
  if (length == 0 || length > list.size() || list[length - 1] != '\0') return false;
  pickReaderName(list.data(), name, readerIndex, length);
  return true;
}

bool readAtr(const ServiceContext& service, std::uint32_t readerIndex, Atr& atr) {
  ReaderName reader{};
  if (!service.established() || !findReader(service, readerIndex, reader)) return false;
  CardConnection card(service.get(), reader);
  if (!card.connected()) return false;
  const LONG status = call("SCardGetAttrib", SCardGetAttrib, card.get(), SCARD_ATTR_ATR_STRING,
                           atr.bytes.data(), &atr.length);
  return card.disconnect() && status == SCARD_S_SUCCESS && atr.length <= atr.bytes.size();
}

}  // namespace

void pickReaderName(const char* readerList, ReaderName& nameOut, std::uint32_t readerIndex,
                    std::size_t listLength) {
  const char* const listEnd = readerList + listLength;
  const char* name = readerList;
  // Every position beyond the second one is answered by the second reader: operators know it so.
  if (readerIndex > 0) {
    const char* const end = std::find(readerList, listEnd, '\0');
    if (end != listEnd) name = end + 1;
  }
  nameOut = {};
  const auto room = std::min(static_cast<std::size_t>(listEnd - name), nameOut.size() - 1);
  std::copy(name, std::find(name, name + room, '\0'), nameOut.begin());
}

std::uint32_t queryReaderAtr(std::int32_t& matchIndex, std::uint32_t readerIndex,
                             std::span<const KnownCard> table) {
  ServiceContext service;
  Atr atr;
  if (readAtr(service, readerIndex, atr)) {
    matchIndex = matchAtr(table, atr.bytes.data(), atr.length);
  }
  const bool known = service.release() && matchIndex >= 1;
  return static_cast<std::uint32_t>(known ? SCARD_S_SUCCESS : SCARD_F_INTERNAL_ERROR);
}

}  // namespace kestrel
