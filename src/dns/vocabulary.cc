#include "dns/vocabulary.h"

#include <array>
#include <charconv>

namespace vantrelo::net::dns {
namespace {

// A table's entries sorted by number, built at compile time from its list. `count` may be below
// N because a number listed twice keeps only its first text.
template <size_t N>
struct SortedTable {
  std::array<NameEntry, N> entries{};
  size_t count = 0;
};

template <size_t N>
constexpr SortedTable<N> build(const NameEntry (&list)[N]) {
  SortedTable<N> table;
  for (const NameEntry& entry : list) {
    size_t at = 0;
    while (at < table.count && table.entries[at].value < entry.value) ++at;
    if (at < table.count && table.entries[at].value == entry.value) continue;  // first wins
    for (size_t i = table.count; i > at; --i) table.entries[i] = table.entries[i - 1];
    table.entries[at] = entry;
    ++table.count;
  }
  return table;
}

constexpr NameEntry kRecordTypeList[] = {
    {0, "RESERVED0"},   {1, "A"},           {2, "NS"},        {3, "MD"},        {4, "MF"},
    {5, "CNAME"},       {6, "SOA"},         {7, "MB"},        {8, "MG"},        {9, "MR"},
    {10, "NULL"},       {11, "WKS"},        {12, "PTR"},      {13, "HINFO"},    {14, "MINFO"},
    {15, "MX"},         {16, "TXT"},        {17, "RP"},       {18, "AFSDB"},    {19, "X25"},
    {20, "ISDN"},       {21, "RT"},         {22, "NSAP"},     {23, "NSAP-PTR"}, {24, "SIG"},
    {25, "KEY"},        {26, "PX"},         {27, "GPOS"},     {28, "AAAA"},     {29, "LOC"},
    {30, "NXT"},        {31, "EID"},        {32, "NIMLOC"},   {33, "SRV"},      {34, "ATMA"},
    {35, "NAPTR"},      {36, "KX"},         {37, "CERT"},     {38, "A6"},       {39, "DNAME"},
    {40, "SINK"},       {41, "OPT"},        {42, "APL"},      {43, "DS"},       {44, "SSHFP"},
    {45, "IPSECKEY"},   {46, "RRSIG"},      {47, "NSEC"},     {48, "DNSKEY"},   {49, "DHCID"},
    {50, "NSEC3"},      {51, "NSEC3PARAM"}, {52, "TLSA"},     {53, "SMIMEA"},   {55, "HIP"},
    {56, "NINFO"},      {57, "RKEY"},       {58, "TALINK"},   {59, "CDS"},      {60, "CDNSKEY"},
    {61, "OPENPGPKEY"}, {62, "CSYNC"},      {63, "ZONEMD"},   {64, "SVCB"},     {65, "HTTPS"},
    {66, "DSYNC"},      {67, "HHIT"},       {68, "BRID"},     {99, "SPF"},      {100, "UINFO"},
    {101, "UID"},       {102, "GID"},       {103, "UNSPEC"},  {104, "NID"},     {105, "L32"},
    {106, "L64"},       {107, "LP"},        {108, "EUI48"},   {109, "EUI64"},   {128, "NXNAME"},
    {249, "TKEY"},      {250, "TSIG"},      {251, "IXFR"},    {252, "AXFR"},    {253, "MAILB"},
    {254, "MAILA"},     {255, "ANY"},       {256, "URI"},     {257, "CAA"},     {258, "AVC"},
    {259, "DOA"},       {260, "AMTRELAY"},  {261, "RESINFO"}, {262, "WALLET"},  {263, "CLA"},
    {264, "IPN"},       {32768, "TA"},      {32769, "DLV"},
};

constexpr NameEntry kClassList[] = {
    {0, "RESERVED0"}, {1, "IN"}, {3, "CH"}, {4, "HS"}, {254, "NONE"}, {255, "ANY"},
};

// 9 and 16 are listed twice; the first text is the one kept.
constexpr NameEntry kResponseCodeList[] = {
    {0, "NOERROR"},   {1, "FORMERR"},    {2, "SERVFAIL"},   {3, "NXDOMAIN"}, {4, "NOTIMP"},
    {5, "REFUSED"},   {6, "YXDOMAIN"},   {7, "YXRRSET"},    {8, "NXRRSET"},  {9, "NOTAUTH"},
    {9, "NOTAUTH"},   {10, "NOTZONE"},   {11, "DSOTYPENI"}, {16, "BADVERS"}, {16, "BADSIG"},
    {17, "BADKEY"},   {18, "BADTIME"},   {19, "BADMODE"},   {20, "BADNAME"}, {21, "BADALG"},
    {22, "BADTRUNC"}, {23, "BADCOOKIE"},
};

constexpr NameEntry kDnssecAlgorithmList[] = {
    {1, "RSAMD5"},       {2, "DH"},       {3, "DSA"},          {4, "ECC"},
    {5, "RSASHA1"},      {6, "NSEC3DSA"}, {7, "NSEC3RSASHA1"}, {8, "RSASHA256"},
    {10, "RSASHA512"},   {12, "ECCGOST"}, {13, "ECDSA256"},    {14, "ECDSA384"},
    {15, "ED25519"},     {16, "ED448"},   {252, "INDIRECT"},   {253, "PRIVATEDNS"},
    {254, "PRIVATEOID"},
};

constexpr NameEntry kCertificateTypeList[] = {
    {1, "PKIX"}, {2, "SPKI"},   {3, "PGP"},     {4, "IPKIX"}, {5, "ISPKI"},
    {6, "IPGP"}, {7, "ACPKIX"}, {8, "IACPKIX"}, {253, "URI"}, {254, "OID"},
};

constexpr NameEntry kSocketProtocolList[] = {
    {1, "UDP"},         {2, "TCP"},         {3, "DOT"}, {4, "DOH"},
    {5, "DNSCryptUDP"}, {6, "DNSCryptTCP"}, {7, "DOQ"},
};

constexpr auto kRecordTypeData = build(kRecordTypeList);
constexpr auto kClassData = build(kClassList);
constexpr auto kResponseCodeData = build(kResponseCodeList);
constexpr auto kDnssecAlgorithmData = build(kDnssecAlgorithmList);
constexpr auto kCertificateTypeData = build(kCertificateTypeList);
constexpr auto kSocketProtocolData = build(kSocketProtocolList);

static_assert(kRecordTypeData.count == 98);
static_assert(kClassData.count == 6);
static_assert(kResponseCodeData.count == 20);
static_assert(kDnssecAlgorithmData.count == 17);
static_assert(kCertificateTypeData.count == 10);
static_assert(kSocketProtocolData.count == 7);

// Constant-initialised, so the references below are usable from any static initialiser.
constinit const NameTable kRecordTypeTable(kRecordTypeData.entries.data(), kRecordTypeData.count);
constinit const NameTable kClassTable(kClassData.entries.data(), kClassData.count);
constinit const NameTable kResponseCodeTable(kResponseCodeData.entries.data(),
                                             kResponseCodeData.count);
constinit const NameTable kDnssecAlgorithmTable(kDnssecAlgorithmData.entries.data(),
                                                kDnssecAlgorithmData.count);
constinit const NameTable kCertificateTypeTable(kCertificateTypeData.entries.data(),
                                                kCertificateTypeData.count);
constinit const NameTable kSocketProtocolTable(kSocketProtocolData.entries.data(),
                                               kSocketProtocolData.count);

}  // namespace

const NameTable& kRecordTypes = kRecordTypeTable;
const NameTable& kClasses = kClassTable;
const NameTable& kResponseCodes = kResponseCodeTable;
const NameTable& kDnssecAlgorithms = kDnssecAlgorithmTable;
const NameTable& kCertificateTypes = kCertificateTypeTable;
const NameTable& kSocketProtocols = kSocketProtocolTable;

std::string_view NameTable::find(uint16_t value) const {
  size_t low = 0;
  size_t high = count_;
  while (low < high) {
    size_t middle = low + (high - low) / 2;
    if (entries_[middle].value < value) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  if (low < count_ && entries_[low].value == value) return entries_[low].text;
  return {};
}

std::optional<uint16_t> NameTable::value_of(std::string_view text) const {
  for (size_t i = 0; i < count_; ++i) {
    if (entries_[i].text == text) return entries_[i].value;
  }
  return std::nullopt;
}

void append_name(std::string& out_text, const NameTable& table, uint16_t value,
                 const char* fallback_prefix) {
  std::string_view text = table.find(value);
  if (!text.empty()) {
    out_text.append(text);
    return;
  }
  out_text.append(fallback_prefix);
  append_decimal(out_text, value);
}

void append_decimal(std::string& out_text, uint32_t value) {
  char digits[10];
  auto result = std::to_chars(digits, digits + sizeof digits, value);
  out_text.append(digits, result.ptr);
}

}  // namespace vantrelo::net::dns
