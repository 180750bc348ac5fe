#include "probe/errors/TemplateFaults.h"

#include <array>
#include <bit>

namespace kestrel::probe {

namespace {

// A number as the value of an attribute.
template <CK_ULONG number>
constexpr auto bytesOf = std::bit_cast<std::array<char, sizeof(CK_ULONG)>>(number);
template <CK_ULONG number>
constexpr View ulong{bytesOf<number>.data(), bytesOf<number>.size()};

constexpr View yes("\x01", 1), no("\0", 1), none;
constexpr View fourBytes("\x04\0\0\0", 4);
constexpr View exponent("\x01\0\x01", 3);
constexpr View p256("\x06\x08\x2a\x86\x48\xce\x3d\x03\x01\x07", 10);
constexpr View noCurve("\x06\x03\x2a\x03\x04", 5);
constexpr View value16 = "the value of AES", value15 = "a value too sho";
static_assert(value16.size() == 16 && value15.size() == 15);

constexpr GoodAttribute goodRows[] = {
    {From::creation, CKA_CLASS, ulong<CKO_SECRET_KEY>},
    {From::creation, CKA_KEY_TYPE, ulong<CKK_AES>},
    {From::creation, CKA_TOKEN, no},
    {From::creation, CKA_ENCRYPT, yes},
    {From::creation, CKA_VALUE, value16},
    {From::generation, CKA_TOKEN, no},
    {From::generation, CKA_VALUE_LEN, ulong<16>},
    {From::rsaPair, CKA_TOKEN, no},
    {From::rsaPair, CKA_MODULUS_BITS, ulong<2048>},
    {From::rsaPair, CKA_PUBLIC_EXPONENT, exponent},
    {From::ecPair, CKA_TOKEN, no},
    {From::ecPair, CKA_EC_PARAMS, p256},
    {From::copy, CKA_TOKEN, no},
    {From::change, CKA_LABEL, value16},
    {From::unwrapping, CKA_CLASS, ulong<CKO_SECRET_KEY>},
    {From::unwrapping, CKA_KEY_TYPE, ulong<CKK_AES>},
    {From::unwrapping, CKA_TOKEN, no},
    {From::derivation, CKA_CLASS, ulong<CKO_SECRET_KEY>},
    {From::derivation, CKA_KEY_TYPE, ulong<CKK_AES>},
    {From::derivation, CKA_VALUE_LEN, ulong<16>},
    {From::derivation, CKA_TOKEN, no},
};

constexpr CK_ULONG unknownNumber = 0x7ffffff7;
constexpr View unknownValue = ulong<unknownNumber>;

constexpr Expected missing{CKR_TEMPLATE_INCOMPLETE, CKR_TEMPLATE_INCONSISTENT};
constexpr Expected badValue{CKR_ATTRIBUTE_VALUE_INVALID, CKR_TEMPLATE_INCONSISTENT,
                            CKR_TEMPLATE_INCOMPLETE};
constexpr Expected badLength{CKR_ATTRIBUTE_VALUE_INVALID, CKR_KEY_SIZE_RANGE,
                             CKR_TEMPLATE_INCONSISTENT, CKR_TEMPLATE_INCOMPLETE};
constexpr Expected conflict{CKR_TEMPLATE_INCONSISTENT, CKR_ATTRIBUTE_VALUE_INVALID};
constexpr Expected unknownType{CKR_ATTRIBUTE_TYPE_INVALID, CKR_TEMPLATE_INCONSISTENT,
                               CKR_ATTRIBUTE_READ_ONLY};
constexpr Expected foreign{CKR_TEMPLATE_INCONSISTENT, CKR_ATTRIBUTE_TYPE_INVALID,
                           CKR_ATTRIBUTE_READ_ONLY, CKR_ATTRIBUTE_VALUE_INVALID};
constexpr Expected readOnly{CKR_ATTRIBUTE_READ_ONLY, CKR_TEMPLATE_INCONSISTENT,
                            CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_VALUE_INVALID};
constexpr Expected noCurveThere{CKR_CURVE_NOT_SUPPORTED, CKR_ATTRIBUTE_VALUE_INVALID,
                                CKR_DOMAIN_PARAMS_INVALID, CKR_TEMPLATE_INCONSISTENT,
                                CKR_TEMPLATE_INCOMPLETE};

constexpr TemplateFault faultRows[] = {
    {From::creation, "class-missing", CKA_CLASS, nothing, none, missing},
    {From::creation, "key-type-missing", CKA_KEY_TYPE, nothing, none, missing},
    {From::creation, "value-missing", CKA_VALUE, nothing, none, missing},
    {From::creation, "class-unknown", CKA_CLASS, CKA_CLASS, unknownValue, badValue},
    {From::creation, "class-of-4-bytes", CKA_CLASS, CKA_CLASS, fourBytes, badValue},
    {From::creation, "class-empty", CKA_CLASS, CKA_CLASS, none, badValue},
    {From::creation, "key-type-unknown", CKA_KEY_TYPE, CKA_KEY_TYPE, unknownValue, badValue},
    {From::creation, "key-type-of-4-bytes", CKA_KEY_TYPE, CKA_KEY_TYPE, fourBytes, badValue},
    {From::creation, "boolean-of-4-bytes", CKA_ENCRYPT, CKA_ENCRYPT, fourBytes, badValue},
    {From::creation, "boolean-empty", CKA_ENCRYPT, CKA_ENCRYPT, none, badValue},
    {From::creation, "value-of-15-bytes", CKA_VALUE, CKA_VALUE, value15, badLength},
    {From::creation, "value-empty", CKA_VALUE, CKA_VALUE, none, badLength},
    {From::creation, "length-with-value", nothing, CKA_VALUE_LEN, ulong<24>, foreign},
    {From::creation, "attribute-unknown", nothing, unknownAttribute, value16, unknownType},
    {From::creation, "attribute-of-RSA", nothing, CKA_MODULUS, value16, foreign},
    {From::creation, "local", nothing, CKA_LOCAL, yes, readOnly},
    {From::creation, "always-sensitive", nothing, CKA_ALWAYS_SENSITIVE, yes, readOnly},
    {From::creation, "never-extractable", nothing, CKA_NEVER_EXTRACTABLE, yes, readOnly},
    {From::creation, "key-gen-mechanism", nothing, CKA_KEY_GEN_MECHANISM, ulong<CKM_AES_KEY_GEN>,
     readOnly},
    {From::creation,
     "twice-the-same",
     nothing,
     CKA_ENCRYPT,
     yes,
     {CKR_OK, CKR_TEMPLATE_INCONSISTENT}},
    {From::creation, "twice-and-another", nothing, CKA_ENCRYPT, no, conflict},

    {From::generation, "length-missing", CKA_VALUE_LEN, nothing, none, missing},
    {From::generation, "length-0", CKA_VALUE_LEN, CKA_VALUE_LEN, ulong<0>, badLength},
    {From::generation, "length-15", CKA_VALUE_LEN, CKA_VALUE_LEN, ulong<15>, badLength},
    {From::generation, "length-of-4-bytes", CKA_VALUE_LEN, CKA_VALUE_LEN, fourBytes, badValue},
    {From::generation, "length-twice", nothing, CKA_VALUE_LEN, ulong<32>, conflict},
    {From::generation, "class-of-a-public-key", nothing, CKA_CLASS, ulong<CKO_PUBLIC_KEY>,
     conflict},
    {From::generation, "key-type-of-DES", nothing, CKA_KEY_TYPE, ulong<CKK_DES3>, conflict},
    {From::generation, "value-given", nothing, CKA_VALUE, value16, foreign},
    {From::generation, "attribute-unknown", nothing, unknownAttribute, value16, unknownType},
    {From::generation, "always-sensitive", nothing, CKA_ALWAYS_SENSITIVE, yes, readOnly},
    {From::generation, "never-extractable", nothing, CKA_NEVER_EXTRACTABLE, yes, readOnly},

    {From::rsaPair, "bits-missing", CKA_MODULUS_BITS, nothing, none, missing},
    {From::rsaPair, "bits-0", CKA_MODULUS_BITS, CKA_MODULUS_BITS, ulong<0>, badLength},
    {From::rsaPair, "class-of-a-secret-key", nothing, CKA_CLASS, ulong<CKO_SECRET_KEY>, conflict},
    {From::rsaPair, "key-type-of-EC", nothing, CKA_KEY_TYPE, ulong<CKK_EC>, conflict},
    {From::rsaPair, "modulus-given", nothing, CKA_MODULUS, value16, foreign},
    {From::rsaPair, "attribute-unknown", nothing, unknownAttribute, value16, unknownType},
    {From::ecPair, "curve-missing", CKA_EC_PARAMS, nothing, none, missing},
    {From::ecPair, "curve-unknown", CKA_EC_PARAMS, CKA_EC_PARAMS, noCurve, noCurveThere},
    {From::ecPair, "curve-of-no-DER", CKA_EC_PARAMS, CKA_EC_PARAMS, value16, noCurveThere},
    {From::ecPair, "curve-empty", CKA_EC_PARAMS, CKA_EC_PARAMS, none, noCurveThere},
    {From::ecPair, "key-type-of-RSA", nothing, CKA_KEY_TYPE, ulong<CKK_RSA>, conflict},

    {From::copy, "class-changed", nothing, CKA_CLASS, ulong<CKO_PUBLIC_KEY>, readOnly},
    {From::copy, "key-type-changed", nothing, CKA_KEY_TYPE, ulong<CKK_DES3>, readOnly},
    {From::copy, "value-changed", nothing, CKA_VALUE, value16, readOnly},
    {From::copy, "attribute-unknown", nothing, unknownAttribute, value16, unknownType},

    {From::change, "class", nothing, CKA_CLASS, ulong<CKO_PUBLIC_KEY>, readOnly},
    {From::change, "key-type", nothing, CKA_KEY_TYPE, ulong<CKK_DES3>, readOnly},
    {From::change, "value", nothing, CKA_VALUE, value16, readOnly},
    {From::change, "local", nothing, CKA_LOCAL, yes, readOnly},
    {From::change, "always-sensitive", nothing, CKA_ALWAYS_SENSITIVE, yes, readOnly},
    {From::change, "never-extractable", nothing, CKA_NEVER_EXTRACTABLE, yes, readOnly},
    {From::change, "key-gen-mechanism", nothing, CKA_KEY_GEN_MECHANISM, ulong<CKM_AES_KEY_GEN>,
     readOnly},
    {From::change, "boolean-of-4-bytes", nothing, CKA_ENCRYPT, fourBytes, badValue},
    {From::change, "attribute-unknown", nothing, unknownAttribute, value16, unknownType},

    {From::unwrapping, "class-missing", CKA_CLASS, nothing, none, missing},
    {From::unwrapping, "class-unknown", CKA_CLASS, CKA_CLASS, unknownValue, badValue},
    {From::unwrapping, "key-type-missing", CKA_KEY_TYPE, nothing, none, missing},
    {From::unwrapping, "key-type-unknown", CKA_KEY_TYPE, CKA_KEY_TYPE, unknownValue, badValue},
    {From::unwrapping, "value-given", nothing, CKA_VALUE, value16, foreign},
    {From::unwrapping, "attribute-unknown", nothing, unknownAttribute, value16, unknownType},

    {From::derivation, "class-unknown", CKA_CLASS, CKA_CLASS, unknownValue, badValue},
    {From::derivation, "class-of-a-public-key", CKA_CLASS, CKA_CLASS, ulong<CKO_PUBLIC_KEY>,
     badValue},
    {From::derivation, "key-type-unknown", CKA_KEY_TYPE, CKA_KEY_TYPE, unknownValue, badValue},
    {From::derivation, "length-15", CKA_VALUE_LEN, CKA_VALUE_LEN, ulong<15>, badLength},
    {From::derivation, "value-given", nothing, CKA_VALUE, value16, foreign},
    {From::derivation, "attribute-unknown", nothing, unknownAttribute, value16, unknownType},
};

}  // namespace

const std::span<const GoodAttribute> goodAttributes = goodRows;
const std::span<const TemplateFault> templateFaults = faultRows;

}  // namespace kestrel::probe
