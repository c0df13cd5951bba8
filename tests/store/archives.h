/* Archives of the Lan area's image, made byte by byte: good ones of each format, and such as are wrong
 * in one point.
 */
#ifndef STORE_ARCHIVES_H
#define STORE_ARCHIVES_H

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace sc_test {

constexpr char kLanMember[] = "var/systemconfig/config_lan.cfg";
constexpr char kLanImage[] = "/var/systemconfig/config_lan.cfg";
constexpr char kLanArchive[] = "/var/dataconfig/config_lan.bin";

/* A member of a tar archive: its header in GNU's format, unless told otherwise, its content, and zeros
 * up to a whole block. */
struct Member {
  std::string name = kLanMember;
  char type = '0';
  std::string magic = "ustar  ";
  std::string size = ""; /* its field; "" is made from the content */
  std::vector<std::pair<size_t, std::string>> fields = {}; /* others, by offset */
};
std::string tar_member(const std::string& content, const Member& member = {});

/* A header of pax with these records: of type x for the next member, of type g for all. */
std::string pax_header(const std::string& records, char type = 'x');
/* SIZE KEY=VALUE, as pax writes it. */
std::string pax_record(const std::string& key, const std::string& value);

/* Two blocks of zeros. */
std::string tar_end();
std::string gzipped(const std::string& bytes);
/* An archive of these members. */
std::string archive_of(const std::string& members);

/* What a command of the shell prints; it has to succeed. */
std::string shell_output(const std::string& command);

struct Sample {
  enum Kind {
    kGood,
    kOldGood,   /* good, of a format that BusyBox tar can be built without */
    kUnpacked,  /* broken, though both tars make the right file of it */
    kNotForTar, /* broken, and at least one tar fails or makes something else of it */
  };
  const char* name;
  Kind kind;
  const char* reason; /* "" when it is good */
  std::string (*make)(std::string image);
};
std::ostream& operator<<(std::ostream& stream, const Sample& sample);

const std::vector<Sample>& samples();

/* Those two apart, for tests of programs around the reader: one of each kind does on a slow target
 * (tests/exceptions.csv), as the reader's own tests judge them all. */
std::vector<Sample> one_of_each_kind();
std::vector<Sample> other_samples();

}  // namespace sc_test

#endif
