#include "CommandCore/Messages.h"

#include <gtest/gtest.h>

using namespace korvane;
using Role = Message::Role;

TEST(Messages, AreWrittenWithTheIdentifierOfACallOnlyWhereThereIsOne)
{
    EXPECT_EQ((Message{.role = Role::user, .content = "hi"}).json().encodedString(), R"({"content":"hi","role":"user"})");
    EXPECT_EQ((Message{.role = Role::tool, .content = "{}", .toolCallID = "c1"}).json().encodedString(),
        R"({"content":"{}","role":"tool","toolCallID":"c1"})");
}

TEST(Messages, AreReadBackAsTheyWereWritten)
{
    Conversation conversation;
    conversation.messages = {{.role = Role::system, .content = "s"}, {.role = Role::user, .content = "ü"},
        {.role = Role::tool, .content = "[]", .toolCallID = "1"}, {.role = Role::assistant, .content = ""}};
    EXPECT_EQ(Conversation::fromJSON(conversation.json()), conversation);
    const ToolCall call{.id = "1", .name = "open", .arguments = JSONValue::Object{{"a", nullptr}}};
    EXPECT_EQ(ToolCall::fromJSON(call.json()), call);
}

TEST(Messages, OfAnUnknownRoleAndIncompleteOnesAreRefused)
{
    for (const char *json : {R"({"role":"robot","content":""})", R"({"role":"user"})", R"({"content":""})",
             R"({"role":"tool","content":"","toolCallID":1})", "[]", "null"})
        EXPECT_THROW(Message::fromJSON(JSONValue::parse(json)), JSONError) << json;
    EXPECT_THROW(ToolCall::fromJSON(JSONValue::parse(R"({"id":"1","name":"n"})")), JSONError);
    EXPECT_THROW(Conversation::fromJSON(JSONValue::parse(R"({"id":"1"})")), JSONError);
}

TEST(Messages, EveryConversationHasANewIdentifier)
{
    const Conversation one, other;
    EXPECT_NE(one.id, other.id);
    EXPECT_EQ(one.id.size(), 36u);
    EXPECT_EQ(one.id.find_first_of("abcdef"), std::string::npos) << "upper-case";
}
