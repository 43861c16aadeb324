#include <cmath>
#include <map>

#include "atoms/JabberServiceAtom.h"
#include "tests/atoms/NotificationFixtures.h"

// Whether generated passwords are what they are said to be, over a million characters from a fixed seed.

namespace tessard {
namespace {

constexpr int kDraws = 1000000;

/// The value that a chi-squared statistic exceeds once in a thousand times (Wilson and Hilferty).
double rarelyExceeded(int degrees) {
  const double spread = 2.0 / (9.0 * degrees);
  return degrees * std::pow(1 - spread + 3.0902 * std::sqrt(spread), 3);
}

using Counts = std::map<char, double>;

double chiSquared(const Counts& seen, const Counts& expected) {
  double sum = 0;
  for (const auto& [character, count] : expected) {
    const auto found = seen.find(character);
    const double difference = (found == seen.end() ? 0 : found->second) - count;
    sum += difference * difference / count;
  }
  return sum;
}

template <class Draw>
Counts countCharacters(std::size_t length, const std::string& alphabet, Draw draw) {
  Counts seen;
  for (int drawn = 0; drawn < kDraws; drawn += static_cast<int>(length)) {
    const std::string password = draw();
    EXPECT_EQ(password.size(), length);
    EXPECT_EQ(password.find_first_not_of(alphabet), std::string::npos);
    for (const char character : password) ++seen[character];
  }
  return seen;
}

double total(const Counts& counts) {
  double sum = 0;
  for (const auto& [character, count] : counts) sum += count;
  return sum;
}

TEST(ServiceUserPasswords, AreLettersAndDigitsWithTheirSlightPreference) {
  const std::string alphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  TestPlatform platform;
  RecordingOwner owner(platform);
  const auto atom = NotificationAtom::notificationServiceAtom(platform, &owner);
  const Counts seen =
      countCharacters(16, alphabet, [&] { return atom->generateRandomPassword().value_or(""); });
  const double all = total(seen);
  Counts expected;
  Counts even;
  for (std::size_t index = 0; index < alphabet.size(); ++index) {
    // 256 is 4 times 62 and 8 more.
    expected[alphabet[index]] = all * (index < 8 ? 5 : 4) / 256;
    even[alphabet[index]] = all / 62;
  }
  EXPECT_LT(chiSquared(seen, expected), rarelyExceeded(61));
  EXPECT_GT(chiSquared(seen, even), rarelyExceeded(61)) << "the test tells the difference";
}

TEST(ServiceUserPasswords, AreNoneWithoutTheDeviceForRandomNumbers) {
  TestPlatform platform;
  RecordingOwner owner(platform);
  platform.random.hasDevice = false;
  EXPECT_FALSE(NotificationAtom::notificationServiceAtom(platform, &owner)->generateRandomPassword());
}

TEST(RouterPasswords, AreOfTheirAlphabetWithOneLetterTwiceAsOften) {
  const std::string alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789`~!#$%^*()-=_+[]\\|;':\",./?{}";
  ASSERT_EQ(alphabet.size(), 90U);
  TestPlatform platform;
  RecordingOwner owner(platform);
  const auto atom = NOTIFICATION_PLUGIN_JabberServiceAtom::jabberServiceAtom(platform, &owner);
  const Counts seen = countCharacters(15, alphabet, [&] { return atom->newRandomPassword(); });
  const double all = total(seen);
  Counts expected;
  Counts even;
  for (const char character : alphabet) {
    expected[character] = all * (character == 'J' ? 2 : 1) / 91;
    even[character] = all / 90;
  }
  EXPECT_LT(chiSquared(seen, expected), rarelyExceeded(89));
  EXPECT_GT(chiSquared(seen, even), rarelyExceeded(89)) << "the test tells the difference";
}

}  // namespace
}  // namespace tessard
