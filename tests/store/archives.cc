#include "store/archives.h"

#include <stdio.h>
#include <string.h>

#include <set>

#include <gtest/gtest.h>

#include "support/world.h"

namespace sc_test {

namespace {

constexpr size_t kBlock = 512;

std::string padded(std::string bytes) {
  bytes.resize((bytes.size() + kBlock - 1) / kBlock * kBlock, '\0');
  return bytes;
}

std::string octal(const char* format, unsigned long long number) {
  char text[16];
  snprintf(text, sizeof text, format, number);
  return text;
}

/* The size in eleven bytes behind 0x80. */
std::string base_256(unsigned long long number) {
  std::string text = "\x80";
  for (int shift = 80; shift >= 0; shift -= 8) {
    text += static_cast<char>(shift < 64 ? number >> shift : 0);
  }
  return text;
}

std::string with_word(std::string image, size_t at, uint32_t word) {
  memcpy(&image[at], &word, sizeof word);
  return archive_of(tar_member(image));
}

std::string flipped(std::string bytes, size_t from_end) {
  bytes[bytes.size() - from_end] ^= 1;
  return bytes;
}

const Member kUstar = {.magic = std::string("ustar\00000", 8)};

std::string behind_pax(const std::string& records, const std::string& image, char type = 'x') {
  return archive_of(pax_header(records, type) + tar_member(image, kUstar));
}

const std::string kZeros(kBlock, '\0');

constexpr size_t kMostInFront = 64 * 1024; /* of the image's header */

/* A record of pax of that many bytes. */
std::string comment_of(size_t size) {
  const size_t rest = pax_record("comment", std::string(size, 'x')).size() - size;
  return pax_record("comment", std::string(size - rest, 'x'));
}

}  // namespace

std::string tar_member(const std::string& content, const Member& member) {
  std::string header(kBlock, '\0');
  const auto put = [&](size_t at, const std::string& text) {
    header.replace(at, text.size(), text);
  };
  put(0, member.name);
  put(100, "0000644");
  put(108, "0000000");
  put(116, "0000000");
  put(124, member.size.empty() ? octal("%011llo", content.size()) : member.size);
  put(136, "00000000000");
  put(148, "        ");
  header[156] = member.type;
  put(257, member.magic);
  for (const auto& [at, text] : member.fields) put(at, text);
  unsigned sum = 0;
  for (const char byte : header) sum += static_cast<unsigned char>(byte);
  put(148, octal("%06llo", sum) + '\0');
  return header + padded(content);
}

std::string pax_record(const std::string& key, const std::string& value) {
  const std::string rest = " " + key + "=" + value + "\n";
  size_t size = rest.size();
  while (std::to_string(size).size() + rest.size() != size) {
    size = std::to_string(size).size() + rest.size();
  }
  return std::to_string(size) + rest;
}

std::string pax_header(const std::string& records, char type) {
  Member header = kUstar;
  header.name = "var/systemconfig/PaxHeaders/config_lan.cfg";
  header.type = type;
  return tar_member(records, header);
}

std::string tar_end() { return kZeros + kZeros; }

std::string gzipped(const std::string& bytes) {
  write_file("/var/unpacked", bytes);
  return shell_output("gzip -c </var/unpacked");
}

std::string archive_of(const std::string& members) { return gzipped(members + tar_end()); }

std::string shell_output(const std::string& command) {
  std::string bytes;
  FILE* stream = popen(command.c_str(), "r");
  for (int byte; stream != nullptr && (byte = getc(stream)) != EOF;) {
    bytes += static_cast<char>(byte);
  }
  EXPECT_EQ(pclose(stream), 0) << command;
  return bytes;
}

std::ostream& operator<<(std::ostream& stream, const Sample& sample) {
  return stream << sample.name;
}

const std::vector<Sample>& samples() {
  using enum Sample::Kind;
  static const std::vector<Sample> kSamples = {
      /* ---- good ---- */
      {"Gnu", kGood, "", [](std::string image) { return archive_of(tar_member(image)); }},
      {"Ustar", kGood, "", [](std::string image) { return archive_of(tar_member(image, kUstar)); }},
      {"V7", kOldGood, "",
       [](std::string image) {
         return archive_of(tar_member(image, {.type = '\0', .magic = ""}));
       }},
      {"Pax", kGood, "",
       [](std::string image) { return behind_pax(pax_record("mtime", "1.5"), image); }},
      {"PaxForAll", kGood, "",
       [](std::string image) { return behind_pax(pax_record("comment", "x"), image, 'g'); }},
      {"PaxForAllAndForOne", kGood, "",
       [](std::string image) {
         return archive_of(pax_header(pax_record("comment", "x"), 'g') +
                           pax_header(pax_record("mtime", "1.5") + pax_record("uid", "70000")) +
                           tar_member(image, kUstar));
       }},
      {"PaxOfTheSameNameAndSize", kGood, "",
       [](std::string image) {
         return behind_pax(
             pax_record("path", kLanMember) + pax_record("size", std::to_string(image.size())),
             image);
       }},
      {"PaxNameAlone", kGood, "",
       [](std::string image) {
         Member named = kUstar;
         named.name = "var/x";
         return archive_of(pax_header(pax_record("path", kLanMember)) + tar_member(image, named));
       }},
      {"PaxOfGnuThatIsNotSparse", kGood, "",
       [](std::string image) {
         return behind_pax(pax_record("GNU.volume.label", "x") +
                               pax_record("GNU.dumpdir", std::string(1, 'Y')),
                           image);
       }},
      {"PaxOf60KiB", kGood, "",
       [](std::string image) {
         return behind_pax(pax_record("comment", std::string(60000, 'x')), image);
       }},
      {"PaxUpTo64KiBInFront", kGood, "",
       [](std::string image) {
         return behind_pax(comment_of(kMostInFront - kBlock), image);
       }},
      {"GnuLongName", kGood, "",
       [](std::string image) {
         return archive_of(
             tar_member(std::string(kLanMember) + '\0', {.name = "././@LongLink", .type = 'L'}) +
             tar_member(image, {.name = "var/x"}));
       }},
      {"GnuLongNameWithoutItsNul", kGood, "",
       [](std::string image) {
         return archive_of(tar_member(kLanMember, {.name = "././@LongLink", .type = 'L'}) +
                           tar_member(image, {.name = "var/x"}));
       }},
      {"DotInFront", kGood, "",
       [](std::string image) {
         return archive_of(tar_member(image, {.name = std::string("./") + kLanMember}));
       }},
      {"SlashInFront", kGood, "",
       [](std::string image) {
         return archive_of(tar_member(image, {.name = std::string("/") + kLanMember}));
       }},
      {"InOnePiece", kGood, "",
       [](std::string image) { return archive_of(tar_member(image, {.type = '7'})); }},
      {"SizeWithBlanks", kGood, "",
       [](std::string image) {
         return archive_of(tar_member(image, {.size = octal("%11llo ", image.size())}));
       }},
      {"SizeThatFillsItsField", kGood, "",
       [](std::string image) {
         return archive_of(tar_member(image, {.size = octal("%012llo", image.size())}));
       }},
      {"SizeInBase256", kGood, "",
       [](std::string image) {
         return archive_of(tar_member(image, {.size = base_256(image.size())}));
       }},
      {"TimeBefore1970", kGood, "",
       [](std::string image) {
         return archive_of(tar_member(image, {.fields = {{136, std::string(12, '\xff')}}}));
       }},
      {"NumbersThatFillTheirFields", kGood, "",
       [](std::string image) {
         return archive_of(tar_member(image, {.size = base_256(image.size()),
                                              .fields = {{100, "00000644"},
                                                         {108, "\x80" + std::string(7, '\0')},
                                                         {116, std::string(8, '0')},
                                                         {136, std::string(12, '0')}}}));
       }},
      {"NoEnd", kGood, "", [](std::string image) { return gzipped(tar_member(image)); }},
      {"OneZeroBlock", kGood, "",
       [](std::string image) { return gzipped(tar_member(image) + kZeros); }},
      {"TenKiBOfZeros", kGood, "",
       [](std::string image) { return archive_of(tar_member(image) + std::string(10240, '\0')); }},
      {"SixtyThreeKiBBehind", kGood, "",
       [](std::string image) { return gzipped(tar_member(image) + std::string(64512, '\0')); }},
      {"SixtyFourKiBBehind", kGood, "",
       [](std::string image) { return gzipped(tar_member(image) + std::string(65536, '\0')); }},
      {"JunkBehindTheEnd", kGood, "",
       [](std::string image) {
         return archive_of(tar_member(image) + tar_end() + std::string(2000, 'x'));
       }},
      {"TwoGzipStreams", kGood, "",
       [](std::string image) {
         const std::string tar = tar_member(image) + tar_end();
         return gzipped(tar.substr(0, 700)) + gzipped(tar.substr(700));
       }},

      /* ---- bad gzip data ---- */
      {"Empty", kNotForTar, "corrupt or truncated gzip data",
       [](std::string) { return std::string(); }},
      {"NoGzip", kNotForTar, "corrupt or truncated gzip data",
       [](std::string image) { return image; }},
      {"AnotherChecksum", kNotForTar, "corrupt or truncated gzip data",
       [](std::string image) { return flipped(archive_of(tar_member(image)), 8); }},
      {"AnotherLength", kNotForTar, "corrupt or truncated gzip data",
       [](std::string image) { return flipped(archive_of(tar_member(image)), 4); }},
      {"AnotherChecksumFarBehindASecondMember", kNotForTar, "corrupt or truncated gzip data",
       [](std::string image) {
         return flipped(
             archive_of(tar_member(image) + tar_member(std::string(50000, 'x'), {.name = "var/x"})),
             8);
       }},
      {"LastByteIsMissing", kNotForTar, "corrupt or truncated gzip data",
       [](std::string image) {
         const std::string whole = archive_of(tar_member(image));
         return whole.substr(0, whole.size() - 1);
       }},

      /* ---- no tar archive of one plain file ---- */
      {"NoTar", kNotForTar, "not a tar archive", [](std::string image) { return gzipped(image); }},
      {"NothingInIt", kNotForTar, "not a tar archive", [](std::string) { return archive_of(""); }},
      {"NothingUnpacked", kNotForTar, "not a tar archive", [](std::string) { return gzipped(""); }},
      {"AnotherMagic", kNotForTar, "not a tar archive",
       [](std::string image) { return archive_of(tar_member(image, {.magic = "stars"})); }},
      {"AnotherHeaderChecksum", kNotForTar, "not a tar archive",
       [](std::string image) {
         std::string member = tar_member(image);
         member[100] = '1';
         return archive_of(member);
       }},
      {"CutInTheHeader", kNotForTar, "truncated tar archive",
       [](std::string image) { return gzipped(tar_member(image).substr(0, 511)); }},
      {"CutInTheImage", kNotForTar, "truncated tar archive",
       [](std::string image) { return gzipped(tar_member(image).substr(0, 5000)); }},
      {"CutInThePadding", kNotForTar, "truncated tar archive",
       [](std::string image) {
         const std::string member = tar_member(image);
         return gzipped(member.substr(0, member.size() - 1));
       }},
      {"CutInTheEnd", kNotForTar, "truncated tar archive",
       [](std::string image) {
         return gzipped(tar_member(image) + kZeros + std::string(100, '\0'));
       }},
      {"PaxAlone", kNotForTar, "truncated tar archive",
       [](std::string) { return gzipped(pax_header(pax_record("mtime", "1.5"))); }},
      {"AnotherName", kNotForTar, "holds a different file",
       [](std::string image) {
         return archive_of(tar_member(image, {.name = "var/systemconfig/config_lan.cf"}));
       }},
      {"AnotherAreasName", kNotForTar, "holds a different file",
       [](std::string image) {
         return archive_of(tar_member(image, {.name = "var/systemconfig/config_x.cfg"}));
       }},
      {"FolderAbove", kNotForTar, "holds a different file",
       [](std::string image) {
         return archive_of(tar_member(image, {.name = std::string("../") + kLanMember}));
       }},
      {"SlashBehind", kNotForTar, "holds a different file",
       [](std::string image) {
         return archive_of(tar_member(image, {.name = std::string(kLanMember) + "/"}));
       }},
      {"Prefix", kNotForTar, "holds a different file",
       [](std::string image) {
         Member prefixed = kUstar;
         prefixed.fields = {{345, "tmp"}};
         return archive_of(tar_member(image, prefixed));
       }},
      {"PaxName", kNotForTar, "holds a different file",
       [](std::string image) { return behind_pax(pax_record("path", "tmp/x"), image); }},
      {"PaxNameOfALaterHeader", kNotForTar, "holds a different file",
       [](std::string image) {
         return archive_of(pax_header(pax_record("path", kLanMember)) +
                           pax_header(pax_record("path", "tmp/x")) + tar_member(image, kUstar));
       }},
      {"GnuOtherLongName", kNotForTar, "holds a different file",
       [](std::string image) {
         return archive_of(
             tar_member(std::string("tmp/x") + '\0', {.name = "././@LongLink", .type = 'L'}) +
             tar_member(image));
       }},
      {"PaxNameForAllAlone", kNotForTar, "holds a different file",
       [](std::string image) {
         Member other = kUstar;
         other.name = "var/x";
         return archive_of(pax_header(pax_record("path", kLanMember), 'g') +
                           tar_member(image, other));
       }},
      {"Link", kNotForTar, "holds no plain file",
       [](std::string image) { return archive_of(tar_member(image, {.type = '2'})); }},
      {"Folder", kNotForTar, "holds no plain file",
       [](std::string image) { return archive_of(tar_member(image, {.type = '5'})); }},
      {"Pipe", kNotForTar, "holds no plain file",
       [](std::string image) { return archive_of(tar_member(image, {.type = '6'})); }},
      {"PaxSparse", kNotForTar, "holds no plain file",
       [](std::string image) { return behind_pax(pax_record("GNU.sparse.name", "tmp/x"), image); }},
      {"PaxSparseMap", kNotForTar, "holds no plain file",
       [](std::string image) { return behind_pax(pax_record("GNU.sparse.map", "0,10"), image); }},
      {"PaxSize", kNotForTar, "image of the wrong size",
       [](std::string image) { return behind_pax(pax_record("size", "512"), image); }},
      {"PaxSizeIsNoNumber", kNotForTar, "invalid extended header",
       [](std::string image) { return behind_pax(pax_record("size", "1x"), image); }},
      {"PaxSizeBehindABlank", kNotForTar, "invalid extended header",
       [](std::string image) {
         return behind_pax(pax_record("size", " " + std::to_string(image.size())), image);
       }},
      {"PaxNameWithANul", kUnpacked, "invalid extended header",
       [](std::string image) {
         return behind_pax(pax_record("path", kLanMember + std::string("\0x", 2)), image);
       }},
      {"PaxWithoutASize", kNotForTar, "invalid extended header",
       [](std::string image) { return behind_pax("mtime=1.5\n", image); }},
      {"PaxLongerThanItsHeader", kNotForTar, "invalid extended header",
       [](std::string image) { return behind_pax("99 mtime=1.5\n", image); }},
      {"PaxWithoutANewline", kNotForTar, "invalid extended header",
       [](std::string image) { return behind_pax("13 mtime=1.5x", image); }},
      {"PaxWithoutAnEqualsSign", kNotForTar, "invalid extended header",
       [](std::string image) { return behind_pax("9 mtime5\n", image); }},
      {"PaxOfOneByteMoreThan64KiBInFront", kUnpacked, "invalid extended header",
       [](std::string image) {
         return behind_pax(comment_of(kMostInFront - kBlock + 1), image);
       }},
      {"PaxOf70KiB", kUnpacked, "invalid extended header",
       [](std::string image) {
         return behind_pax(pax_record("comment", std::string(70000, 'x')), image);
       }},
      {"ManyPaxHeaders", kUnpacked, "invalid extended header",
       [](std::string image) {
         std::string headers;
         for (int n = 0; n < 200; ++n) headers += pax_header(pax_record("comment", "x"));
         return archive_of(headers + tar_member(image, kUstar));
       }},
      {"SizeWithJunk", kNotForTar, "invalid number in the header",
       [](std::string image) {
         return archive_of(tar_member(image, {.size = octal("%lloxyz", image.size())}));
       }},
      {"ModeIsNoNumber", kNotForTar, "invalid number in the header",
       [](std::string image) {
         return archive_of(tar_member(image, {.fields = {{100, "zzzzzzz"}}}));
       }},
      {"UserIsNoNumber", kNotForTar, "invalid number in the header",
       [](std::string image) {
         return archive_of(tar_member(image, {.fields = {{108, "zzzzzzz"}}}));
       }},
      {"GroupIsNoNumber", kNotForTar, "invalid number in the header",
       [](std::string image) {
         return archive_of(tar_member(image, {.fields = {{116, "zzzzzzz"}}}));
       }},
      {"TimeIsNoNumber", kNotForTar, "invalid number in the header",
       [](std::string image) {
         return archive_of(tar_member(image, {.fields = {{136, "xyz"}}}));
       }},
      {"DeviceIsNoNumber", kNotForTar, "invalid number in the header",
       [](std::string image) {
         return archive_of(tar_member(image, {.fields = {{329, "zzzzzzz"}}}));
       }},
      {"MinorDeviceIsNoNumber", kUnpacked, "invalid number in the header",
       [](std::string image) {
         return archive_of(tar_member(image, {.fields = {{337, "zzzzzzz"}}}));
       }},
      {"OneByteShort", kNotForTar, "image of the wrong size",
       [](std::string image) { return archive_of(tar_member(image.substr(0, image.size() - 1))); }},
      {"OneByteLong", kNotForTar, "image of the wrong size",
       [](std::string image) { return archive_of(tar_member(image + '\0')); }},
      {"SizeBeyond32Bits", kNotForTar, "image of the wrong size",
       [](std::string image) {
         return archive_of(
             tar_member(image, {.size = base_256((1ull << 32) + image.size()).substr(0, 12)}));
       }},
      {"SizeBeyond32BitsInOctal", kNotForTar, "image of the wrong size",
       [](std::string image) {
         return archive_of(
             tar_member(image, {.size = octal("%011llo", (1ull << 32) + image.size())}));
       }},
      {"SecondMember", kNotForTar, "holds a second member",
       [](std::string image) {
         return archive_of(tar_member(image) + tar_member("x", {.name = "var/x"}));
       }},
      {"SecondMemberBehindAZeroBlock", kNotForTar, "holds a second member",
       [](std::string image) {
         return archive_of(tar_member(image) + kZeros + tar_member("x", {.name = "var/x"}));
       }},
      {"JunkBehindTheImage", kNotForTar, "junk after the image",
       [](std::string image) { return archive_of(tar_member(image) + std::string(512, 'x')); }},
      {"JunkBehindAZeroBlock", kNotForTar, "junk after the image",
       [](std::string image) {
         return archive_of(tar_member(image) + kZeros + std::string(512, 'x'));
       }},
      {"SixtyFiveKiBBehind", kUnpacked, "more than 64 KiB after the image",
       [](std::string image) { return gzipped(tar_member(image) + std::string(66560, '\0')); }},
      {"OneBlockMoreThan64KiBBehind", kUnpacked, "more than 64 KiB after the image",
       [](std::string image) {
         return gzipped(tar_member(image) + std::string(65536 + kBlock, '\0'));
       }},

      /* ---- not the area's image ---- */
      {"AnotherLockPath", kUnpacked, "wrong lock path",
       [](std::string image) {
         image.replace(2, 29, "/var/lock_store/wan_conf_lock");
         return archive_of(tar_member(image));
       }},
      {"LongerLockPath", kUnpacked, "wrong lock path",
       [](std::string image) {
         image[31] = 'x';
         return archive_of(tar_member(image));
       }},
      {"NoLockPath", kUnpacked, "wrong lock path",
       [](std::string image) { return with_word(image, 2, 0); }},
      {"AnotherBlockLock", kUnpacked, "wrong block lock",
       [](std::string image) { return with_word(image, 132, 2); }},
      {"AnotherFirstRecord", kUnpacked, "wrong lock indices",
       [](std::string image) { return with_word(image, 1508 + 4, 3); }},
      {"AnotherLastRecord", kUnpacked, "wrong lock indices",
       [](std::string image) { return with_word(image, 25948 + 31 * 748 + 4, 0); }},
  };
  return kSamples;
}

namespace {

std::vector<Sample> first_of_their_kind(bool first) {
  std::vector<Sample> chosen;
  std::set<Sample::Kind> seen;
  for (const Sample& sample : samples()) {
    if (seen.insert(sample.kind).second == first) chosen.push_back(sample);
  }
  return chosen;
}

}  // namespace

std::vector<Sample> one_of_each_kind() { return first_of_their_kind(true); }
std::vector<Sample> other_samples() { return first_of_their_kind(false); }

}  // namespace sc_test
