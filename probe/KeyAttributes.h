// The attributes of keys: what they may do, and the numbers that OpenSSL's keys are made of.
#pragma once

#include "probe/Keys.h"
#include "probe/Templates.h"

namespace kestrel::probe {

void addUsage(Template& attributes, Usage usage);

// The part of a pair's usage that is the public or the private key's.
Usage partOf(Usage usage, bool isPublic);

// How a curve's name and point are written: tokens of the last ones differ in it. As many as
// `curveForms`, from 0 on.
inline constexpr unsigned curveForms = 4;

// CKA_KEY_TYPE and the numbers of a key. False where the key has no such form.
bool addPublicNumbers(Template& attributes, EVP_PKEY* key, unsigned form);
bool addPrivateNumbers(Template& attributes, EVP_PKEY* key, unsigned form);

// What a template asks a generation for: a length of RSA, the parameters of a curve, or a group.
void addGenerationAttributes(Template& publicKey, CK_KEY_TYPE type, CK_ULONG bits,
                             View curveParameters);

// A length and what it is of, as DER has the short ones; `tag` 4 for octets.
Bytes der(char tag, View content);

// Sets the lowest bit of each byte so that it has an odd number of ones, as DES keys have it.
Bytes withOddParity(Bytes value);
bool hasOddParity(View value);
bool isDes(CK_KEY_TYPE type);

}  // namespace kestrel::probe
