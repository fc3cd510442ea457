#include "base/Json.hpp"

#include <gtest/gtest.h>

using namespace view;

namespace {

std::string quoted(std::string_view text) {
  return JsonWriter().value(text).text();
}

std::string readBack(std::string_view document) {
  const auto value = JsonValue::parse(document);
  return value && value->string() != nullptr ? *value->string() : "not a string";
}

}  // namespace

TEST(ViewJsonTest, StringsComeOutInASCIIWithoutAnythingThatAPageWouldRead) {
  EXPECT_EQ(quoted("a\"b\\c"), R"("a\"b\\c")");
  EXPECT_EQ(quoted("</script>&"), R"("\u003c/script\u003e\u0026")");
  EXPECT_EQ(quoted("é\n\u2028😀"), R"("\u00e9\u000a\u2028\ud83d\ude00")");
  EXPECT_EQ(quoted("\xFF"), R"("\ufffd")");
}

TEST(ViewJsonTest, StringsReadAsTheyWereWritten) {
  for (const char* text : {"", "plain", "é\n\t\"\\/", "</script>", "😀 \u202E"}) {
    EXPECT_EQ(readBack(quoted(text)), text);
  }
  EXPECT_EQ(readBack(R"("\b\f\n\r\t\/")"), "\b\f\n\r\t/");
  EXPECT_EQ(readBack(R"("\ud800x")"), "\uFFFDx");
  EXPECT_EQ(readBack(R"("\udc00")"), "\uFFFD");
}

TEST(ViewJsonTest, CommasComeByThemselves) {
  JsonWriter json;
  json.beginObject().name("a").value(uint64_t{1}).lineBreak();
  json.name("b").beginArray().value(true).null().value(int64_t{-5}).endArray();
  json.name("c").beginArray().endArray().endObject();
  EXPECT_EQ(json.text(), "{\"a\": 1,\n\"b\": [true,null,-5],\"c\": []}");
}

TEST(ViewJsonTest, DocumentsAreRead) {
  const auto value = JsonValue::parse(R"( {"a": [1, -2, {"b": null}], "t": true, "s": "x"} )");
  ASSERT_TRUE(value);
  ASSERT_EQ(value->find("a")->array()->size(), 3U);
  EXPECT_EQ((*value->find("a")->array())[1].number(), -2);
  EXPECT_EQ(value->find("t")->boolean(), true);
  EXPECT_EQ(*value->find("s")->string(), "x");
  EXPECT_EQ(value->find("missing"), nullptr);
  EXPECT_EQ(value->count("s"), std::nullopt);
}

TEST(ViewJsonTest, WhatIsNoDocumentIsRefused) {
  for (const char* text :
       {"", "{", "[1,]", "[1 2]", "{\"a\" 1}", "{a: 1}", "\"open", "\"\\x\"", "\"\\u12\"", "1.5",
        "nul", "[1] 2", "{\"a\": }", "99999999999999999999", "]"}) {
    EXPECT_FALSE(JsonValue::parse(text)) << text;
  }
}

TEST(ViewJsonTest, DepthIsBounded) {
  EXPECT_TRUE(JsonValue::parse(std::string(30, '[') + std::string(30, ']')));
  EXPECT_FALSE(JsonValue::parse(std::string(100000, '[')));
}
