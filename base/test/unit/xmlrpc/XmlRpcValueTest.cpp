#include "xmlrpc/XmlRpcValue.h"

#include "kernel/Properties.h"
#include "xmlrpc/XmlRpcMessage.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>

using XmlRpc::XmlRpcMessage;
using XmlRpc::XmlRpcValue;

namespace {

std::string failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "no failure";
}

std::string nest(unsigned levels) {
    std::string text = "<value/>";
    for (unsigned i = 0; i < levels; ++i)
        text = "<value><array><data>" + text + "</data></array></value>";
    return text;
}

std::string member(const std::string& name) {
    return "<member><name>" + name + "</name><value/></member>";
}

} // namespace

TEST(XmlRpcValue, WireFormsOfAllClientsAreRead) {
    const std::string nan = "<value><double>nan</double></value>";
    for (const auto& [given, written] : {
             std::pair<std::string, std::string>("<value>a &lt;&#x20AC;</value>",
                                                 "<string>a &lt;\xE2\x82\xAC</string>"),
             {"<value>  </value>", "<string>  </string>"},
             {"<value></value>", "<string></string>"},
             {"<?xml version='1.0'?>\n<!-- > -->\n<value>\n <int> +7\n</int> </value>\n", "<i4>7</i4>"},
             {"<value><i4>-2147483648</i4></value>", "<i4>-2147483648</i4>"},
             {"<value><i8>9223372036854775807</i8></value>", "<i8>9223372036854775807</i8>"},
             {"<value><ex:i8 xmlns:ex='>'>5</ex:i8></value>", "<i4>5</i4>"},
             {"<value><boolean>1</boolean></value>", "<boolean>1</boolean>"},
             {"<value><double>1e+21</double></value>", "<double>1000000000000000000000</double>"},
             {"<value><double>-0.5</double></value>", "<double>-0.5</double>"},
             {"<value><ex:nil/></value>", "<nil/>"},
             {"<value><base64>\nAAE=\n</base64></value>", "<base64>AAE=</base64>"},
             {"<value><dateTime.iso8601>20260102T03:04:05</dateTime.iso8601></value>",
              "<dateTime.iso8601>20260102T03:04:05</dateTime.iso8601>"},
             {"<value><string><![CDATA[<&]]>\r\n&#13;</string></value>", "<string>&lt;&amp;\n&#13;</string>"},
             {"<value><array><data/></array></value>", "<array><data></data></array>"},
             {"<value><struct><member><value>v</value><name>b</name></member>" + member("a") +
                  "</struct></value>",
              "<struct><member><name>b</name><value><string>v</string></value></member>"
              "<member><name>a</name><value><string></string></value></member></struct>"},
         }) {
        const XmlRpcValue value = XmlRpcValue::fromXml(given);
        EXPECT_EQ(value.toXml(), "<value>" + written + "</value>");
        EXPECT_EQ(XmlRpcValue::fromXml(value.toXml()), value) << given;
    }
    EXPECT_TRUE(std::isnan(XmlRpcValue::fromXml(nan).getDouble()));
    const XmlRpcValue deep = XmlRpcValue::fromXml(nest(XmlRpcValue::MAX_DEPTH));
    EXPECT_EQ(XmlRpcValue::fromXml(deep.toXml()), deep);
}

TEST(XmlRpcValue, WhatIsNotXmlRpcIsRefusedWithTheReason) {
    std::string many;
    for (std::size_t i = 0; i < XmlRpcValue::MAX_ELEMENTS; ++i)
        many += "<value/>";
    for (const auto& [text, reason] : {
             std::pair<std::string, std::string>("", "No document element found at byte 0"),
             {"<!DOCTYPE v [<!ENTITY a 'b'>]><value>&a;</value>",
              "a document type isn't accepted: at byte 0"},
             {"<value>&a;</value>", "an unknown entity at byte 7"},
             {"<value>a & b</value>", "\"&\" without its end at byte 9"},
             {"<value>\x01</value>", "a control character at byte 7"},
             {"<value>&#1;</value>", "has characters that XML doesn't allow"},
             {"<value>\xFF</value>", "it isn't UTF-8"},
             {"<value><int>2147483648</int></value>", "\"2147483648\" isn't a number of the kind \"int\""},
             {"<value><i8>1.5</i8></value>", "isn't a number of the kind \"i8\""},
             {"<value><double></double></value>", "isn't a number of the kind \"double\""},
             {"<value><boolean>2</boolean></value>", "the kind \"boolean\" with the text \"2\" isn't known"},
             {"<value><base64>*</base64></value>", "isn't Base64"},
             {"<value><int>1</int><int>1</int></value>", "a value has two types"},
             {"<value/><value/>", "more than one root element"},
             {"<value><struct>" + member("a") + member("a") + "</struct></value>",
              "\"a\" stands there twice"},
             {"<value><struct><name/></struct></value>", "has \"name\" beside its members"},
             {"<value><string><b/></string></value>", "stands where a text was expected"},
             {"</value>", "an end without a beginning"},
             {"<value", "an element without an end"},
             {"<value><!-- </value>", "no \"-->\" ends"},
             {"<value>", "tags mismatch"},
             {nest(XmlRpcValue::MAX_DEPTH + 1), "nested deeper than 64 levels"},
             {nest(1000), "nested too deep"},
             {"<value><array><data>" + many + "</data></array></value>", "more than 500000 elements"},
             {"<value>" + std::string(XmlRpcValue::MAX_TEXT_SIZE, 'x') + "</value>", "more than the limit"},
         }) {
        const std::string told = failureOf([&xml = text] { XmlRpcValue::fromXml(xml); });
        EXPECT_NE(told.find(reason), told.npos) << text.substr(0, 100) << "\n" << told;
    }
    XmlRpcValue deep = XmlRpcValue::fromXml(nest(XmlRpcValue::MAX_DEPTH));
    deep = XmlRpcValue(XmlRpcValue::Array{deep});
    EXPECT_NE(failureOf([&] { deep.toXml(); }).find("nested deeper"), std::string::npos);
}

TEST(XmlRpcValue, AccessorsRefuseOtherTypes) {
    XmlRpcValue value;
    value.set("a", XmlRpcValue(1));
    value.set("a", XmlRpcValue(std::int64_t(1) << 40));
    EXPECT_EQ(value.find("a")->getI8(), std::int64_t(1) << 40);
    EXPECT_EQ(value.find("a")->getDouble(), std::ldexp(1.0, 40));
    EXPECT_EQ(value.find("b"), nullptr);
    for (const auto& wrong : std::initializer_list<std::function<void()>>{
             [&] { value.find("a")->getInt(); }, [&] { value.getArray(); }, [&] { value.getString(); },
             [&] { value.append(XmlRpcValue()); }, [&] { XmlRpcValue().getBool(); }})
        EXPECT_THROW(wrong(), std::invalid_argument);
}

TEST(XmlRpcMessage, CallsAndAnswersAreCheckedAsAWhole) {
    const std::string begin = "<methodCall><methodName>a</methodName>";
    EXPECT_TRUE(XmlRpcMessage::readCall(begin + "</methodCall>").params.getArray().empty());
    EXPECT_EQ(
        XmlRpcMessage::readCall(XmlRpcMessage::writeCall("m", XmlRpcValue(5))).params.getArray()[0].getInt(),
        5);
    const std::string anyBytes = std::string("\0\x1B\xC3(", 4) + "\xEF\xBF\xBF";
    const XmlRpcMessage::Answer fault =
        XmlRpcMessage::readAnswer(XmlRpcMessage::writeFault(-1, "\x01\xFF \xE2\x82\xAC"));
    EXPECT_EQ(fault.fault.value().text, "\\x01\\xFF \xE2\x82\xAC");
    EXPECT_NE(XmlRpcMessage::writeFault(-1, anyBytes).find(">\\x00\\x1B\\xC3(\\xEF\\xBF\\xBF<"),
              std::string::npos);
    for (const auto& wrong : std::initializer_list<std::function<void()>>{
             [&] { XmlRpcMessage::writeCall("a b", {}); },
             [&] { XmlRpcMessage::readCall("<methodResponse/>"); },
             [&] { XmlRpcMessage::readCall(begin + "<params><param/></params></methodCall>"); },
             [&] { XmlRpcMessage::readAnswer("<methodResponse><params/></methodResponse>"); },
             [&] { XmlRpcMessage::readAnswer("<methodResponse><fault><value/></fault></methodResponse>"); }})
        EXPECT_THROW(wrong(), std::invalid_argument);
}

TEST(XmlRpcValue, CarriesAnyPropertiesUnchanged) {
    Properties error(
        "{\"What\":\"a <b> & c\\r\\n\",\"n\":18446744073709551615,\"big\":-9223372036854775808,"
        "\"r\":[{\"$real\":\"nan\"},{\"$real\":\"-inf\"},1e300,-0.0],\"none\":[],\"o\":{},\"\":null}");
    error.set("bytes", std::string("\0\x01\xFF z", 5));
    error.set(std::string("k\0", 2), L"\x1F600");
    const std::string wire = XmlRpcValue::fromXml("<value>" + error.toXml()).toXml();
    EXPECT_EQ(Properties::fromXml(wire), error) << wire;
}
