// Subjects and messages between the host and its agents.
#include "host/drivers/nats/wire.h"

#include <set>
#include <tuple>

#include <gtest/gtest.h>

namespace {

using namespace qmta::host::wire;

TEST(NatsWire, SubjectsAreDistinctValidAndReversible) {
  const std::string names[] = {"web1:LZ", "web1_3ALZ", "web1.LZ", "web1*LZ", "web1>LZ",
                               "web1 LZ", "web1\tLZ", "", "_", "a_", "-", std::string("\xff\x01", 2),
                               "SYS1:MVS_ACTIONS"};
  std::set<std::string> subjects;
  for (const std::string& name : names) {
    std::string subject = NodeSubject(name);
    EXPECT_TRUE(subjects.insert(subject).second) << subject;
    // One token after the prefix, of characters every subject token may hold.
    std::string token = subject.substr(kSubjectPrefix.size());
    EXPECT_FALSE(token.empty());
    EXPECT_EQ(token.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-"),
              std::string::npos) << subject;
    std::string back;
    EXPECT_TRUE(SubjectNode(subject, &back)) << subject;
    EXPECT_EQ(back, name);
  }
  EXPECT_EQ(NodeSubject("web1:LZ"), "qmta.node.web1_3ALZ");
  std::string node;
  for (const char* bad : {"qmta.node.", "qmta.node.a_3", "qmta.node._61", "qmta.node.a_zz",
                          "qmta.node.a.b", "other.web1"})
    EXPECT_FALSE(SubjectNode(bad, &node)) << bad;
}

TEST(NatsWire, RequestsCarryAnyBytesAndRejectAnythingElse) {
  Request request{4294967295u, -7, "n:1 \"x\"\n", std::string("job \"$(a)\"\n\xfe;`b`")};
  std::string data = EncodeRequest(request);
  Request back;
  std::string error;
  ASSERT_TRUE(DecodeRequest(data, &back, &error)) << error;
  EXPECT_EQ(std::tie(back.id, back.callType, back.node, back.command),
            std::tie(request.id, request.callType, request.node, request.command));

  const std::string bad[] = {
      "", "QMTA1 REQ 1 0 1 1\nab\n",  // longer than its header says
      "QMTA1 REQ 1 0 1 2\nab",        // shorter
      "QMTA1 REQ 1 0 1 1 \nab", "QMTA1 REQ -1 0 1 1\nab", "QMTA1 REQ 1 0 +1 1\nab",
      "QMTA1 REQ 4294967296 0 1 1\nab", "QMTA2 REQ 1 0 1 1\nab", "QMTA1 RC 1 0 1 1\nab",
      "QMTA1 REQ 1 0 2000 0\n" + std::string(2000, 'n'), std::string("QMTA1 REQ 1 0 1 1\na\0", 20)};
  for (const std::string& text : bad) EXPECT_FALSE(DecodeRequest(text, &back, &error)) << text;
}

TEST(NatsWire, RepliesCarryCodesOrAStatus) {
  Reply rows{9, false, 0, {0, -1, 2147483647}}, none{10, false, 0, {}}, failed{11, true, 2020, {}};
  for (const Reply& reply : {rows, none, failed}) {
    Reply back;
    std::string error;
    ASSERT_TRUE(DecodeReply(EncodeReply(reply), &back, &error)) << error;
    EXPECT_EQ(std::tie(back.id, back.failed, back.status, back.codes),
              std::tie(reply.id, reply.failed, reply.status, reply.codes));
  }
  EXPECT_EQ(EncodeReply(rows), "QMTA1 RC 9 0 -1 2147483647");
  Reply back;
  std::string error;
  for (const char* text : {"QMTA1 RC", "QMTA1 RC 1 2147483648", "QMTA1 RC 1  2", "QMTA1 RC 1 2 ",
                           "QMTA1 STATUS 1", "QMTA1 STATUS 1 2 3", "QMTA1 OK 1", "qmta1 RC 1"})
    EXPECT_FALSE(DecodeReply(text, &back, &error)) << text;
}

}  // namespace
