// A card reader for pcscd whose device is a folder: while a file "card" is in it, which holds an
// ATR as hexadecimal bytes, a card of that ATR is inserted.
#include <winscard.h>

#include <array>
#include <fstream>
#include <string>

extern "C" {
#include <ifdhandler.h>
#include <reader.h>

static std::array<std::string, 16> cardFiles;  // by reader, the upper half of a LUN

static RESPONSECODE readAtr(DWORD lun, PUCHAR atr, PDWORD length) {
  std::ifstream file(cardFiles.at(lun >> 16));
  *length = 0;
  for (std::string byte; *length < MAX_ATR_SIZE && std::getline(file, byte, ',');) {
    atr[(*length)++] = static_cast<UCHAR>(std::stoul(byte, nullptr, 16));
  }
  return *length == 0 ? IFD_ERROR_POWER_ACTION : IFD_SUCCESS;
}

RESPONSECODE IFDHCreateChannelByName(DWORD lun, LPSTR device) {
  cardFiles.at(lun >> 16) = std::string(device) + "/card";
  return IFD_SUCCESS;
}

RESPONSECODE IFDHGetCapabilities(DWORD lun, DWORD tag, PDWORD length, PUCHAR value) {
  if (tag == TAG_IFD_ATR || tag == SCARD_ATTR_ATR_STRING) return readAtr(lun, value, length);
  if (tag != TAG_IFD_SIMULTANEOUS_ACCESS) return IFD_ERROR_TAG;
  *length = 1;
  *value = cardFiles.size();
  return IFD_SUCCESS;
}

RESPONSECODE IFDHPowerICC(DWORD lun, DWORD action, PUCHAR atr, PDWORD length) {
  return action == IFD_POWER_DOWN ? IFD_SUCCESS : readAtr(lun, atr, length);
}

RESPONSECODE IFDHICCPresence(DWORD lun) {
  return std::ifstream(cardFiles.at(lun >> 16)) ? IFD_ICC_PRESENT : IFD_ICC_NOT_PRESENT;
}

// What a file has no use for, but pcscd wants to find in a driver.
#define NOTHING(result, function, ...) \
  RESPONSECODE function(__VA_ARGS__) { \
    return result;                     \
  }
NOTHING(IFD_SUCCESS, IFDHSetProtocolParameters, DWORD, DWORD, UCHAR, UCHAR, UCHAR, UCHAR)
NOTHING(IFD_SUCCESS, IFDHCloseChannel, DWORD)
NOTHING(IFD_NOT_SUPPORTED, IFDHCreateChannel, DWORD, DWORD)
NOTHING(IFD_NOT_SUPPORTED, IFDHSetCapabilities, DWORD, DWORD, DWORD, PUCHAR)
NOTHING(IFD_NOT_SUPPORTED, IFDHTransmitToICC, DWORD, SCARD_IO_HEADER, PUCHAR, DWORD, PUCHAR, PDWORD,
        PSCARD_IO_HEADER)
NOTHING(IFD_NOT_SUPPORTED, IFDHControl, DWORD, DWORD, PUCHAR, DWORD, PUCHAR, DWORD, LPDWORD)
}
