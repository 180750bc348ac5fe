#include "cards/KnownCards.h"

#include <algorithm>
#include <string_view>

namespace kestrel {

namespace {

// Thirty-three mask bytes that let every bit count: the end of this text is the mask of any ATR.
constexpr std::string_view everyBit =
    "ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,"
    "ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff";

constexpr KnownCard exact(const char* atr, const char* name) {
  const std::size_t length = std::string_view(atr).size();
  return {atr, everyBit.substr(everyBit.size() - length).data(), name};
}

constexpr KnownCard masked(const char* atr, const char* mask, const char* name) {
  return {atr, mask, name};
}

constexpr bool masksFit(const KnownCard& card) {
  return std::string_view(card.atr).size() == std::string_view(card.atrMask).size();
}

}  // namespace

// Rows 47 and 52 share an ATR, so that 52 is never found.
constexpr std::array<KnownCard, 78> KnownCardTable{{
    exact("3b,6b,00,ff,33,00,00,09,fa,10,00,80,00,ff,ff", "Atmel 6464C Pro 64K"),
    exact("3b,7b,11,00,ff,00,31,10,00,01,00,23,00,ff,ff,ff", "Atmel 6464C Pro USB 64K"),
    exact("3b,65,00,00,9c,02,02,07,02", "Axalto Cyberflex Access 32K V2 SM 7.2"),
    exact("3b,75,12,00,00,29,05,01,04,01", "Axalto Cyberflex Access 64K V1 SM 4 V1"),
    exact("3b,85,40,20,68,01,01,02,04", "Gemalto Cryptoflex 8K #1"),
    exact("3b,85,40,fe,68,01,01,02,04", "Gemalto Cryptoflex 8K #2"),
    exact("3b,05,68,01,01,02,05", "Gemalto Cryptoflex 8K #3"),
    exact("3b,86,40,20,68,01,01,02,04,ac", "Gemalto Cryptoflex 8K #4"),
    exact("3b,95,96,c0,ff,1f,03,d0,00,40,01,04,b5", "Gemalto Cyberflex Access 128 K"),
    exact("3b,65,00,00,9c,02,02,07,01", "Gemalto Cyberflex Access 32K V2 #1"),
    exact("3b,66,00,00,00,9c,11,01,01,03", "Gemalto Cyberflex Access 32K V4 SM 1.3"),
    exact("3b,66,00,00,00,9c,11,01,03,01", "Gemalto Cyberflex Access 64K V1 Bio SM 3.1"),
    exact("3b,65,00,00,29,05,01,02,01", "Gemalto Cyberflex Access 64K V1 SM 2.1"),
    exact("3b,95,95,40,ff,ae,01,01,02,03", "Gemalto Cyberflex Access 64K V2a SM 2.3"),
    exact("3b,d5,95,04,00,ae,01,02,01,01", "Gemalto Cyberflex Access 64K V2b SM 1.1"),
    exact("3b,95,95,40,ff,ae,01,03,00,00", "Gemalto Cyberflex Access 64K V2c"),
    exact("3b,75,94,00,00,62,02,02,01,01", "Gemalto Cyberflex Access e-gate 32K"),
    exact("3b,95,95,40,ff,d0,00,1a,01,01", "Gemalto Cyberflex iCitizen 64K"),
    exact("3b,7d,96,00,00,80,31,80,65,b0,83,11,13,ac,83,00,90,00",
          "Gemalto GemCombiXpresso R4 Dual Interface"),
    exact("3b,7d,96,00,00,80,31,80,65,b0,83,11,11,ac,83,00,90,00",
          "Gemalto GemCombiXpresso R4 E72 PK Standard"),
    exact("3f,6d,00,00,80,31,80,65,b0,05,01,02,5e,92,00,90,00", "Gemalto GemXpresso 32K"),
    exact("3b,6b,00,00,80,65,b0,83,01,03,74,83,00,90,00",
          "Gemalto GemXpresso PRO 64K FIPS V1 Dual ATR"),
    exact("3b,7b,95,00,00,80,65,b0,83,01,04,74,83,00,90,00",
          "Gemalto GemXpresso PRO 64K R3 FIPS V2"),
    exact("3b,7b,94,00,00,80,65,b0,83,01,03,74,83,00,90,00",
          "Gemalto GemXpresso PRO 64K R3 V1 Dual ATR"),
    exact("3b,7b,94,00,00,80,65,b0,83,01,01,74,83,00,90,00",
          "Gemalto GemXpresso PRO R3 E64 PK - Standard Version #1"),
    exact("3b,6b,00,00,80,65,b0,83,01,01,74,83,00,90,00",
          "Gemalto GemXpresso PRO R3 E64 PK - Standard Version #2"),
    exact("3b,7d,96,00,00,80,31,80,65,b0,83,11,17,d6,83,00,90,00", "Gemalto Top DL GX4 144K"),
    exact("3b,85,40,ff,63,01,01,03,01", "Gemalto Cryptoflex 16k"),
    exact("3b,fd,96,00,00,81,31,80,43,80,31,80,65,b0,83,11,17,d6,83,00,90,00,bc",
          "Gemalto Top DL GX4 144K Type A"),
    exact("3b,7d,96,00,00,80,31,80,65,b0,83,11,11,e5,83,00,90,00", "Gemalto IDPrime 128K v2.0"),
    exact("3b,6b,00,00,80,65,b0,83,01,04,74,83,00,90,00",
          "Gemplus GemXpresso PRO 64K R3 FIPS V2 #2"),
    exact("3b,ff,18,00,ff,80,31,fe,45,53,6d,40,72,74,43,61,66,65,45,78,70,65,72,74,65",
          "Giesecke & Devrient SmartCafe 32K V1"),
    exact("3b,ff,13,00,ff,80,31,fe,45,53,46,53,45,2d,43,58,33,32,32,2d,56,18,02,08,76",
          "Giesecke & Devrient SmartCafe Expert 32K V2.0 #1"),
    exact("3b,6f,00,ff,53,46,53,45,2d,43,58,33,32,32,2d,56,18,03,08",
          "Giesecke & Devrient SmartCafe Expert 32K V2.0 #2_"),
    exact("3b,ff,13,00,ff,80,31,fe,45,53,46,53,45,2d,43,58,33,32,32,2d,56,18,03,08,77",
          "Giesecke & Devrient SmartCafe Expert 32K V2.0 #2"),
    exact("3b,fd,18,00,ff,80,b1,fe,45,1f,07,80,73,00,21,13,57,4a,54,48,61,31,47,00,5f",
          "Giesecke & Devrient SmartCafe Expert 64K FIPS-1024 #1"),
    exact("3b,6d,00,ff,80,73,00,21,13,57,4a,54,48,61,31,47,00",
          "Giesecke & Devrient SmartCafe Expert 64K FIPS-1024 #2"),
    exact("3b,fd,18,00,ff,80,b1,fe,45,1f,07,80,73,00,21,13,57,4a,54,48,61,31,4a,00,52",
          "Giesecke & Devrient SmartCafe Expert 64K FIPS-2048 #1"),
    exact("3b,6d,00,ff,80,73,00,21,13,57,4a,54,48,61,31,4a,00",
          "Giesecke & Devrient SmartCafe Expert 64K FIPS-2048 #2"),
    exact("3b,7a,18,00,00,73,66,74,65,20,63,64,31,34,34",
          "Giesecke & Devrient SmartCafe Expert 144K FIPS-201 V3.2"),
    exact("3b,8a,80,01,73,66,74,65,20,63,64,31,34",
          "Giesecke & Devrient SmartCafe Expert 144K FIPS-201 Contactless"),
    exact("3b,fe,91,00,ff,91,81,71,fe,40,00,41,20,00,01,b3,c1,02,00,31,c0,64,77,e3,03,5d",
          "JavaCard #1"),
    exact("3b,f0,96,00,ff,c0,0a,31,fe,4d,d1",
          "Keycorp MULTOS 64K with StepNexus PIV Application v4.2.1"),
    exact("3b,db,96,00,80,1f,03,00,31,c0,64,77,e3,03,00,82,90,00", "Oberthur CAC"),
    exact("3b,7f,18,00,00,00,31,c0,73,9e,01,0b,64,52,d9,04,00,82,90,00",
          "Oberthur CosmopolIC 32K V4 Fast ATR"),
    exact("3b,7f,11,00,00,00,31,c0,53,ca,c4,01,64,52,d9,04,00,82,90,00",
          "Oberthur CosmopolIC 32K V4"),
    exact("3b,7d,11,00,00,00,31,80,71,8e,64,77,e3,01,00,82,90,00", "Oberthur CosmopolIC 64K v5"),
    exact("3b,db,96,00,80,1f,03,00,31,c0,64,77,e3,03,00,82,90,00,c1",
          "Oberthur CosmopolIC 64K V5.2 Fast ATR"),
    exact("3b,7b,18,00,00,00,31,c0,64,77,e3,03,00,82,90,00", "Oberthur CosmopolIC 64K V5.2"),
    exact("3b,7d,11,00,00,00,31,80,71,8e,64,86,d6,01,00,81,90,00", "Oberthur Galactic 32K #1"),
    exact("3b,7d,11,00,00,00,31,80,71,8e,64,86,d9,01,00,82,90,00", "Oberthur Galactic 32K #2"),
    exact("3b,7d,11,00,00,00,31,80,71,8e,64,86,d6,02,00,82,90,00", "Oberthur Galactic v1 32K"),
    exact("3b,db,96,00,80,1f,03,00,31,c0,64,77,e3,03,00,82,90,00,c1", "Oberthur ID One v5.2D"),
    exact("3b,db,96,00,80,1f,03,00,31,c0,64,b0,f3,10,00,07,90,00,80",
          "Oberthur ID-One Cosmo 128 v5.5 Dual"),
    exact("3b,db,96,00,81,b1,fe,45,1f,03,80,f9,a0,00,00,03,08,00,00,10,00,18",
          "Oberthur ID-One Cosmo 64 v5.2D Fast ATR with PIV application SDK"),
    exact("3b,db,96,00,81,b1,fe,45,1f,03,00,f9,a0,00,00,03,08,00,00,10,00,98",
          "Oberthur ID-One Cosmo 64 v5.2D Fast ATR with PIV application"),
    exact("3b,7b,96,00,00,00,31,c0,64,77,e9,10,00,01,90,00", "Oberthur ID-One Cosmo 64K v5.4"),
    masked("3b,df,90,00,81,b1,fe,45,1f,83,80,73,cc,91,cb,f9,a0,00,00,03,08,00,00,10,00,70",
           "ff,ff,f0,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,f0",
           "Oberthur ID-One PIV Type A"),
    exact("3b,db,96,00,81,b1,fe,45,1f,03,80,f9,a0,00,00,03,08,00,00,10,00", "Oberthur PIV"),
    exact("3b,f9,96,00,00,80,31,fe,45,53,43,45,37,20,03,00,20,46,42",
          "Giesecke & Devrient HID 144K"),
    exact("3b,d8,18,00,80,b1,fe,45,1f,07,80,31,c1,64,08,06,92,0f,d5",
          "Oberthur ID-One Cosmo v8 128K"),
    masked("3b,7d,96,00,00,00,31,80,65,b0,85,49,17,0f,83,00,90,00",
           "ff,ff,ff,ff,ff,00,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff", "Gemalto IDPrime PIV v2.1"),
    exact("3b,fd,96,00,00,81,31,fe,43,80,31,80,65,b0,87,5c,17,fb,83,00,90,00,a6",
          "Gemalto IDPrime PIV v3.0"),
    exact("3b,f9,96,00,00,80,31,fe,45,53,43,45,37,20,0f,00,20,46,4e",
          "Giesecke & Devrient SmartCafe Expert 7.0 SCP03"),
    exact("3b,f9,18,00,00,00,53,43,45,37,20,03,00,20,46",
          "Giesecke & Devrient SmartCafe Expert 144K FIPS-201 V7.0"),
    exact("3b,d8,18,00,80,1f,07,80,31,c1,64,08,06,92,0f,df", "IDEMIA ID-One Cosmo v8.0"),
    exact("3b,7d,96,00,00,80,31,80,65,b0,75,49,17,0f,83,00,90,00", "Gemalto IDCore 3020 v2.1"),
    masked("3b,d6,00,00,81,b1,fe,45,1f,87,80,31,c1,52,41,1a,00",
           "ff,ff,00,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,00",
           "IDEMIA ID-One PIV/CIV on V8 Device"),
    masked("3b,7f,96,00,00,80,31,80,65,b0,00,00,00,00,12,0f,fe,82,90,00",
           "ff,ff,ff,ff,ff,ff,ff,ff,ff,ff,00,00,00,00,ff,ff,ff,ff,ff,ff", "Gemalto IDPrime MD"),
    exact("3b,7f,96,00,00,80,31,80,65,b0,84,61,60,fb,12,0f,fd,82,90,00", "Gemalto IDPrime 930"),
    exact("3b,df,96,ff,81,31,fe,45,5a,01,80,48,49,44,43,31,31,58,58,73,00,01,1b,09",
          "HID Crescendo iCLASS Px G8H"),
    exact("3b,d5,96,ff,81,91,fe,1f,c3,43,32,33,30,30,cc", "HID Crescendo iCLASS Px G8H"),
    exact("3b,df,96,ff,81,91,fe,1f,c3,45,6e,74,72,75,73,74,49,44,31,30,30,30,30,30,d7",
          "ENT Canada PKI Card"),
    exact("3b,fd,13,00,00,81,31,fe,15,80,73,c0,21,c0,57,59,75,62,69,4b,65,79,40",
          "YubiKey 5 Series USB"),
    exact("3b,8d,80,01,80,73,c0,21,c0,57,59,75,62,69,4b,65,79,f9", "YubiKey 5 Series NFC"),
    exact("3b,f8,13,00,00,81,31,fe,15,59,75,62,69,6b,65,79,34,d4", "YubiKey 4 Series USB"),
    exact("3b,fc,13,00,00,81,31,fe,15,59,75,62,69,6b,65,79,4e,45,4f,72,33,e1", "YubiKey NEO USB"),
    exact("3b,8c,80,01,59,75,62,69,6b,65,79,4e,45,4f,72,33,58", "YubiKey NEO NFC"),
}};

static_assert(std::ranges::all_of(KnownCardTable, masksFit), "a mask covers its ATR to the byte");
static_assert(!std::string_view(KnownCardTable.back().atr).empty(), "a row is missing");

}  // namespace kestrel
