#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CppTools/AutoCli/CommandInput.h"
#include "CppTools/AutoCli/CommandOutput.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

TEST(CallSpecInput, KeepsParametersInTheOrderAddedIncludingRepeats) {
  auto input = CppTools::AutoCli::CommandInput::New();
  EXPECT_THAT(input->GetParameters(), IsEmpty());
  input->AddParameter("enabled", "true");
  input->AddParameter("-e", "false");
  input->AddParameter("enabled", "");
  EXPECT_THAT(input->GetParameters(),
              ElementsAre(Pair("enabled", "true"), Pair("-e", "false"), Pair("enabled", "")));
}

TEST(CommandInput, HoldsTheDispatcherNameAndTheCommandPath) {
  auto input = CppTools::AutoCli::CommandInput::New();
  EXPECT_EQ(input->GetDispatcher(), "");
  EXPECT_THAT(input->GetCommandPath(), IsEmpty());
  input->SetDispatcher("orvane");
  input->SetCommandPath({"network", "firewall", "set"});
  EXPECT_EQ(input->GetDispatcher(), "orvane");
  EXPECT_THAT(input->GetCommandPath(), ElementsAre("network", "firewall", "set"));
  input->SetCommandPath({"reboot"});
  EXPECT_THAT(input->GetCommandPath(), ElementsAre("reboot"));
}

TEST(CommandInput, NewGivesADistinctObjectEachTime) {
  auto first = CppTools::AutoCli::CommandInput::New();
  auto second = CppTools::AutoCli::CommandInput::New();
  first->AddParameter("a", "1");
  EXPECT_NE(first.get(), second.get());
  EXPECT_THAT(second->GetParameters(), IsEmpty());
}

TEST(CallSpecOutput, HasAnErrorOnlyOnceOneIsAdded) {
  auto output = CppTools::AutoCli::CommandOutput::New();
  EXPECT_FALSE(output->HasError());
  EXPECT_THAT(output->GetErrors(), IsEmpty());
  output->AddError("first");
  output->AddError("second");
  EXPECT_TRUE(output->HasError());
  EXPECT_THAT(output->GetErrors(), ElementsAre("first", "second"));
}

}  // namespace
