#include <gtest/gtest.h>

#include "companions/probe/IKEQuestion.h"
#include "tests/companions/probe/IKEServer.h"

using namespace companions;
using namespace helper::isakmp;
using support::IKEServer;
using Kind = IKEAnswer::Kind;

namespace {

const IKEProposal kStrong{CipherAlgorithm::aes256, HashAlgorithm::sha256, Group::modp2048};
const IKEProposal kOld{CipherAlgorithm::tripleDES, HashAlgorithm::sha1, Group::modp1024};

TEST(IKEQuestionTest, IsAFirstMessageOfMainMode) {
  const IKEQuestion question({kStrong, kOld});
  const auto header = decodeHeader(question.message());
  ASSERT_TRUE(header) << header.error().message;
  EXPECT_EQ(header->exchange, ExchangeType::main);
  EXPECT_EQ(header->cookies.responder, Cookie{});
  const auto chain = openPlain(*header, question.message());
  ASSERT_TRUE(chain) << chain.error().message;
  EXPECT_EQ(chain->all(PayloadType::vendorID).size(), ownVendorIDs().size());
  EXPECT_EQ(IKEServer::offerIn(question.message()).proposals.front().transforms.size(), 2U);
  EXPECT_NE(IKEQuestion({kStrong}).message(), IKEQuestion({kStrong}).message()) << "each has a cookie of its own";
}

TEST(IKEQuestionTest, HasTheSizeThatIsAskedFor) {
  const std::size_t least = IKEQuestion({}).message().size();
  for (const std::size_t size : {std::size_t{576}, std::size_t{1001}, std::size_t{1472}}) {
    const IKEQuestion question({}, size);
    EXPECT_EQ(question.message().size(), size);
    const auto header = decodeHeader(question.message());
    ASSERT_TRUE(header);
    EXPECT_TRUE(openPlain(*header, question.message()));
  }
  EXPECT_EQ(IKEQuestion({}, 10).message().size(), least);
}

TEST(IKEQuestionTest, CanOfferWhatNobodyTakes) {
  const IKEQuestion question({});
  EXPECT_EQ(IKEServer::offerIn(question.message()).proposals.front().transforms.size(), 1U);
  EXPECT_FALSE(choose(IKEServer::offerIn(question.message()), defaultIKEProposals()));
}

TEST(IKEQuestionTest, ReadsAChoice) {
  const IKEQuestion question({kStrong, kOld});
  const auto replies = IKEServer::choose(question.message(), {kOld}, ownVendorIDs());
  const IKEAnswer answer = question.read(replies.at(0));
  EXPECT_EQ(answer.kind, Kind::accepted) << answer.detail;
  EXPECT_EQ(answer.chosen, kOld);
  EXPECT_EQ(answer.vendors,
            (std::vector<std::string>{"NAT traversal (RFC 3947)", "NAT traversal (draft 2)", "dead peer detection"}));
}

TEST(IKEQuestionTest, ReadsARefusal) {
  const IKEQuestion question({kStrong});
  const IKEAnswer answer = question.read(IKEServer::refuse(question.message()).at(0));
  EXPECT_EQ(answer.kind, Kind::refused);
  EXPECT_EQ(answer.notification, "NO-PROPOSAL-CHOSEN");
  EXPECT_EQ(question.read(IKEServer::refuse(question.message(), 4711).at(0)).notification, "notification 4711");
}

TEST(IKEQuestionTest, PassesOverWhatIsForSomebodyElse) {
  const IKEQuestion question({kStrong});
  const IKEQuestion other({kStrong});
  EXPECT_EQ(question.read({}).kind, Kind::notOurs);
  EXPECT_EQ(question.read(Bytes(5, 0xff)).kind, Kind::notOurs);
  EXPECT_EQ(question.read(IKEServer::choose(other.message(), {kStrong}).at(0)).kind, Kind::notOurs);
  EXPECT_EQ(question.read(IKEServer::refuse(other.message()).at(0)).kind, Kind::notOurs);
}

TEST(IKEQuestionTest, BelievesNoImpossibleAnswer) {
  const IKEQuestion question({kStrong});
  const auto isStrange = [&](const Bytes &datagram) {
    const IKEAnswer answer = question.read(datagram);
    return answer.kind == Kind::strange && !answer.detail.empty() && !answer.chosen;
  };
  EXPECT_TRUE(isStrange(question.message())) << "our own message come back";
  EXPECT_TRUE(isStrange(IKEServer::refuse(question.message(), notify::kFirstStatus).at(0))) << "that is no refusal";
  const IKEQuestion both({kStrong, kOld});
  Bytes unasked = IKEServer::choose(both.message(), {kOld}).at(0);
  for (std::size_t i = 0; i < 8; ++i) unasked[i] = question.message()[i];
  EXPECT_TRUE(isStrange(unasked)) << "a choice that was not offered";
  Bytes newer = IKEServer::refuse(question.message()).at(0);
  newer[17] = 0x20;
  EXPECT_TRUE(isStrange(newer)) << "a server of IKE version 2 alone";
  const Bytes whole = IKEServer::choose(question.message(), {kStrong}, ownVendorIDs()).at(0);
  for (std::size_t size = kHeaderSize; size < whole.size(); ++size)
    ASSERT_TRUE(isStrange(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)))) << size;
}

TEST(IKEQuestionTest, SurvivesEveryBytesChange) {
  const IKEQuestion question({kStrong});
  const Bytes whole = IKEServer::choose(question.message(), {kStrong}, ownVendorIDs()).at(0);
  for (std::size_t i = 0; i < whole.size(); ++i)
    for (const int value : {0, 1, 0x7f, 0x80, 0xff}) {
      Bytes changed = whole;
      changed[i] = static_cast<std::uint8_t>(value);
      const IKEAnswer answer = question.read(changed);
      if (answer.kind == Kind::accepted) ASSERT_EQ(answer.chosen, kStrong) << i;
    }
}

}  // namespace
