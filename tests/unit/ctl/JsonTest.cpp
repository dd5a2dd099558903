#include "ctl/Json.h"

#include <gtest/gtest.h>

using namespace keywardctl;

namespace {

TEST(JsonLine, MembersKeepTheirOrderAndTypes) {
    Json inner;
    inner.text("z", "last").number("a", 1);
    Json json = Json::answer();
    json.text("text", "a")
        .number("large", 253402300799)
        .number("negative", -12)
        .flag("yes", true)
        .null("nothing")
        .texts("list", {"one", "two"})
        .object("object", inner)
        .objects("objects", {inner, Json()});
    EXPECT_EQ(json.line(),
              R"({"version":1,"text":"a","large":253402300799,"negative":-12,"yes":true,"nothing":null,)"
              R"("list":["one","two"],"object":{"z":"last","a":1},"objects":[{"z":"last","a":1},{}]})"
              "\n");
}

TEST(JsonLine, NothingIsLeftOutOfEmptyOnes) {
    Json json;
    json.texts("texts", {}).objects("objects", {}).object("object", Json());
    EXPECT_EQ(json.line(), "{\"texts\":[],\"objects\":[],\"object\":{}}\n");
    EXPECT_EQ(Json().line(), "{}\n");
}

TEST(JsonLine, WhatMayBeMissingIsNull) {
    Json json;
    json.text("a", std::optional<std::string>())
        .number("b", std::optional<std::int64_t>())
        .flag("c", std::optional<bool>())
        .text("d", std::optional<std::string>("x"))
        .number("e", std::optional<std::int64_t>(0))
        .flag("f", std::optional<bool>(false));
    EXPECT_EQ(json.line(), "{\"a\":null,\"b\":null,\"c\":null,\"d\":\"x\",\"e\":0,\"f\":false}\n");
}

TEST(JsonLine, CharactersAreEscapedAsCharactersNotAsBytes) {
    Json json;
    json.text("t", "M\xc3\xbcnchen \xf0\x9f\x98\x80 \"\\ \n\x01 \xff/");
    EXPECT_EQ(json.line(), "{\"t\":\"M\\u00fcnchen \\ud83d\\ude00 \\\"\\\\ \\n\\u0001 ?/\"}\n");
}

}  // namespace
