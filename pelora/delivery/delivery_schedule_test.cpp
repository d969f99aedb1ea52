#include "pelora/delivery/delivery_schedule.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <deque>

namespace pelora {
namespace {

using namespace std::chrono_literals;
using Action = DeliverySchedule::Action;
using Clock = DeliverySchedule::Clock;

HTTPResult status(int code, std::optional<std::chrono::seconds> retryAfter = {}) {
  return HTTPResult{HTTPClientErrors::statusCode(code), retryAfter};
}

HTTPResult transport(platform::HttpError::Code code) {
  return HTTPResult{platform::HttpError{code, "failed", 0}};
}

TEST(DeliverySchedule, AnswersMeanWhatTheyShould) {
  EXPECT_EQ(classifyUpload(HTTPResult{true}), UploadOutcome::delivered);
  EXPECT_EQ(classifyUpload(transport(platform::HttpError::Code::cannotConnect)),
            UploadOutcome::unreachable);
  EXPECT_EQ(classifyUpload(transport(platform::HttpError::Code::cannotFindHost)),
            UploadOutcome::unreachable);
  // A service that answers slowly or breaks off is reachable: it still gets the deadline.
  EXPECT_EQ(classifyUpload(transport(platform::HttpError::Code::timedOut)),
            UploadOutcome::retryLater);
  EXPECT_EQ(classifyUpload(transport(platform::HttpError::Code::connectionLost)),
            UploadOutcome::retryLater);
  EXPECT_EQ(classifyUpload(transport(platform::HttpError::Code::fileError)), UploadOutcome::gone);
  EXPECT_EQ(classifyUpload(status(413)), UploadOutcome::tooLarge);
  for (int code : {400, 401, 403}) EXPECT_EQ(classifyUpload(status(code)), UploadOutcome::refused);
  for (int code : {302, 404, 429, 500, 503})
    EXPECT_EQ(classifyUpload(status(code)), UploadOutcome::retryLater) << code;
}

TEST(DeliverySchedule, BackoffDoublesUpToItsCapWithJitter) {
  for (std::uint64_t random : {0ull, 500'000ull, 1'000'000ull, 123'456'789ull}) {
    std::chrono::milliseconds previousStep{0};
    for (int failures = 1; failures <= 20; ++failures) {
      const auto wait = DeliverySchedule::backoff(failures, 1s, 10min, random);
      const auto step =
          std::min<std::chrono::milliseconds>(1s * (1ll << std::min(failures - 1, 20)), 10min);
      EXPECT_GE(wait, step / 2) << failures;
      EXPECT_LE(wait, step) << failures;
      EXPECT_GE(step, previousStep);
      previousStep = step;
    }
  }
  EXPECT_EQ(DeliverySchedule::backoff(0, 1s, 10min, 7), 0ms);
  // A huge failure count neither overflows nor passes the cap.
  EXPECT_LE(DeliverySchedule::backoff(1'000'000, 1s, 10min, ~0ull), 10min);
}

TEST(DeliverySchedule, WithoutAPolicyBatchesStayAndFailingServicesEndTheRound) {
  DeliverySchedule schedule(std::nullopt, 1);
  const auto now = Clock::now();
  for (auto outcome : {UploadOutcome::retryLater, UploadOutcome::tooLarge, UploadOutcome::refused,
                       UploadOutcome::unreachable}) {
    EXPECT_EQ(schedule.record("b", outcome, 60s, now), Action::keep);
    EXPECT_TRUE(schedule.mayAttempt("b", now));  // no wait of its own
  }
  EXPECT_TRUE(schedule.unreachable());
  EXPECT_TRUE(schedule.endsRound(UploadOutcome::retryLater));
  EXPECT_TRUE(schedule.automaticFlushAllowed(now));

  // flush(deadline) paces its retries: 250 ms, then doubling to 2 s.
  const std::deque<std::filesystem::path> backlog{"b"};
  EXPECT_EQ(schedule.nextAttempt(now, backlog), now);
  schedule.roundEnded(true, now);
  EXPECT_TRUE(schedule.failing());
  EXPECT_EQ(schedule.nextAttempt(now, backlog), now + 250ms);
  for (int i = 0; i < 6; ++i) schedule.roundEnded(true, now);
  EXPECT_EQ(schedule.nextAttempt(now, backlog), now + 2s);
  schedule.roundEnded(false, now);
  EXPECT_EQ(schedule.nextAttempt(now, backlog), now);
  EXPECT_EQ(schedule.record("b", UploadOutcome::delivered, {}, now), Action::forget);
  EXPECT_FALSE(schedule.unreachable());
}

TEST(DeliverySchedule, APolicyBacksOffEachBatchAndHonoursRetryAfterWithinItsCap) {
  DeliveryPolicy policy;
  policy.initialBackoff = 1s;
  policy.maxBackoff = 30s;
  DeliverySchedule schedule(policy, 42);
  const auto now = Clock::now();

  EXPECT_EQ(schedule.record("a", UploadOutcome::retryLater, {}, now), Action::keep);
  EXPECT_FALSE(schedule.mayAttempt("a", now));
  EXPECT_TRUE(schedule.mayAttempt("a", now + 1s));
  EXPECT_TRUE(schedule.mayAttempt("other", now));  // others keep their own order
  EXPECT_FALSE(schedule.endsRound(UploadOutcome::retryLater));

  // Retry-After: 20 s is honoured, an hour is capped at maxBackoff.
  schedule.record("b", UploadOutcome::retryLater, 20s, now);
  EXPECT_FALSE(schedule.mayAttempt("b", now + 19s));
  EXPECT_TRUE(schedule.mayAttempt("b", now + 20s));
  schedule.record("c", UploadOutcome::retryLater, 3600s, now);
  EXPECT_FALSE(schedule.mayAttempt("c", now + 29s));
  EXPECT_TRUE(schedule.mayAttempt("c", now + 30s));

  // The next try of the backlog is its earliest batch's.
  schedule.roundEnded(true, now);
  EXPECT_LE(schedule.nextAttempt(now, {"b", "a"}), now + 1s);
  EXPECT_EQ(schedule.nextAttempt(now, {"b"}), now + 20s);
  EXPECT_EQ(schedule.nextAttempt(now, {"b", "new"}), now);
  schedule.keepOnly({"b"});
  EXPECT_TRUE(schedule.mayAttempt("a", now));  // forgotten with its listing
}

TEST(DeliverySchedule, APolicySplitsTooLargeAndSetsAsideWhatIsRefusedForGood) {
  DeliveryPolicy policy;
  policy.refusedAfterTries = 3;
  DeliverySchedule schedule(policy, 7);
  const auto now = Clock::now();
  EXPECT_EQ(schedule.record("big", UploadOutcome::tooLarge, {}, now), Action::split);
  EXPECT_EQ(schedule.record("bad", UploadOutcome::refused, {}, now), Action::keep);
  EXPECT_EQ(schedule.record("bad", UploadOutcome::refused, {}, now + 1h), Action::keep);
  EXPECT_EQ(schedule.record("bad", UploadOutcome::refused, {}, now + 2h), Action::setAside);

  policy.splitTooLarge = false;
  policy.refusedAfterTries = 1;
  DeliverySchedule noSplit(policy, 7);
  EXPECT_EQ(noSplit.record("big", UploadOutcome::tooLarge, {}, now), Action::setAside);
}

TEST(DeliverySchedule, APolicyPausesTimedUploadsWhileTheServiceCannotBeReached) {
  DeliveryPolicy policy;
  policy.initialBackoff = 1s;
  DeliverySchedule schedule(policy, 3);
  const auto now = Clock::now();
  EXPECT_EQ(schedule.record("a", UploadOutcome::unreachable, {}, now), Action::keep);
  EXPECT_TRUE(schedule.mayAttempt("a", now));  // the service never saw it: an explicit flush goes
  EXPECT_FALSE(schedule.automaticFlushAllowed(now));
  EXPECT_TRUE(schedule.automaticFlushAllowed(now + 1s));
  schedule.record("a", UploadOutcome::delivered, {}, now);
  EXPECT_TRUE(schedule.automaticFlushAllowed(now));
}

}  // namespace
}  // namespace pelora
