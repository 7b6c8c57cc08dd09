#include <string>
#include <utility>
#include <vector>

#include "tests/contract/module_test.h"

namespace {

// ---- CoreUtilsConfigureJWS ----

constexpr const char* kStarterDirectory = "C:\\agent\\ui\\console\\jws\\jnlp";
constexpr const char* kAskingForThePort =
    "ActionDbInvokeContainer(null, \"\", \"HttpProtocolGetValues\", {}, null, ~0, ~0, false)";
constexpr const char* kCompletion =
    "CompletePath(\"C:\\agent\\data\\ZelCoreUtils/../../ui/console/jws/jnlp\")";
constexpr const char* kListing =
    "DirListFiles(\"C:\\agent\\ui\\console\\jws\\jnlp\", false, true, true)";

Lines CallsUpToTheListing() {
  return {kAskingForThePort, kCompletion, "DirExists(\"C:\\agent\\ui\\console\\jws\\jnlp\")",
          kListing};
}

std::string Property(const std::string& name, const std::string& value) {
  return "<property name=\"kvl-" + name + "\" value=\"" + value + "\"/>";
}

class ConfigureJWS : public ModuleTest {
 protected:
  ConfigureJWS() { InitialiseModule(host); }

  void AnswerPort(int32_t port) {
    host.AnswerInvocation(0, [port](ZelContainer& work) {
      ZelContainer values;
      values.SetInt32("Port", port, kNoIndex);
      work.SetContainer("Values", values, kNoIndex);
    });
  }
  void AnswerDirectory(std::vector<ZelString> files) {
    host.AnswerText("CompletePath", kStarterDirectory);
    host.Answer("DirExists", 1);
    host.AnswerList("DirListFiles", std::move(files));
  }
  void AnswerDescriptor(const std::string& text, const char* security = "_DB_SSL_HTTPS_NONE_") {
    host.AnswerText("ZelAgentGetSecurity", security);
    host.AnswerText("LoadFileToString", text);
    host.Answer("SaveFileFromString", 1);
  }
  Outcome Configure(const ZelContainer& params) { return Run("CoreUtilsConfigureJWS", params); }

  /// What is saved for a descriptor of that text.
  std::string Rewritten(const std::string& text, const char* security = "_DB_SSL_HTTPS_NONE_",
                        const char* address = "M", int32_t port = 80) {
    host.ForgetTranscript();
    AnswerPort(port);
    AnswerDirectory({"C:\\a.jnlp"});
    AnswerDescriptor(text, security);
    const ZelContainer params = Texts({{"MasterAddress", address}});
    EXPECT_EQ(Configure(params), (Outcome{kSuccess, Describe(params)}));

    const std::string start = "SaveFileFromString(\"C:\\a.jnlp\", \"";
    const std::string line = host.Transcript().back();
    EXPECT_TRUE(line.starts_with(start) && line.ends_with("\")")) << line;
    return line.substr(start.size(), line.size() - start.size() - 2);
  }
};

TEST_F(ConfigureJWS, PointsADescriptorAtTheMaster) {
  AnswerPort(8080);
  AnswerDirectory({"C:\\jnlp\\console.jnlp"});
  AnswerDescriptor("<jnlp codebase=\"http://old.example:1234/jws\">\n" +
                       Property("servername", "old.example") + "\n" +
                       Property("serverport", "1234") + "\n" + Property("ssl", "0") + "\n",
                   "_DB_SSL_HTTPS_SENDANDRECEIVEEXT_");
  ZelContainer params = Texts({{"MasterAddress", "master.example"}});
  params.SetInt32("MasterHttpPort", 1, kNoIndex);

  EXPECT_EQ(Configure(params), (Outcome{kSuccess, Describe(params)}));

  Lines expected = CallsUpToTheListing();
  expected.insert(
      expected.end(),
      {"ZelAgentGetSecurity()", "LoadFileToString(\"C:\\jnlp\\console.jnlp\")",
       "SaveFileFromString(\"C:\\jnlp\\console.jnlp\", \"<jnlp "
       "codebase=\"https://master.example:8080/jws\">\\x0a" +
           Property("servername", "master.example") + "\\x0a" + Property("serverport", "8080") +
           "\\x0a" + Property("ssl", "3") + "\\x0a\")"});
  EXPECT_EQ(host.Transcript(), expected);
}

TEST_F(ConfigureJWS, TellsHowTheAgentUsesTls) {
  const std::string text = "http://o:1/ " + Property("ssl", "x");
  for (const auto& [security, scheme, mode] :
       {std::tuple{"_DB_SSL_HTTPS_SENDANDRECEIVE_", "https", "2"},
        {"_DB_SSL_HTTPS_SEND_", "https", "2"},
        {"_DB_SSL_HTTPS_SENDANDRECEIVEEXT_", "https", "3"},
        {"_DB_SSL_HTTPS_NONE_", "http", "0"},
        {"_db_ssl_https_send_", "http", "0"},
        {"_DB_SSL_HTTPS_SEND", "http", "0"},
        {"_DB_SSL_HTTPS_SEND_ ", "http", "0"},
        {"", "http", "0"}}) {
    EXPECT_EQ(Rewritten(text, security), std::string(scheme) + "://M:80/ " + Property("ssl", mode))
        << security;
  }
}

TEST_F(ConfigureJWS, AsksForTheSecuritySettingAnewForEachFile) {
  AnswerPort(80);
  AnswerDirectory({"C:\\b.jnlp", "C:\\a.jnlp"});
  AnswerDescriptor("http://o:1/", "_DB_SSL_HTTPS_SEND_");
  AnswerDescriptor("http://o:1/");

  EXPECT_EQ(Configure(Texts({{"MasterAddress", "M"}})).code, kSuccess);

  Lines expected = CallsUpToTheListing();
  expected.insert(expected.end(), {"ZelAgentGetSecurity()", "LoadFileToString(\"C:\\b.jnlp\")",
                                   "SaveFileFromString(\"C:\\b.jnlp\", \"https://M:80/\")",
                                   "ZelAgentGetSecurity()", "LoadFileToString(\"C:\\a.jnlp\")",
                                   "SaveFileFromString(\"C:\\a.jnlp\", \"http://M:80/\")"});
  EXPECT_EQ(host.Transcript(), expected);
}

TEST_F(ConfigureJWS, LeavesOtherFilesAlone) {
  AnswerPort(80);
  AnswerDirectory({"C:\\a.jnlp.bak", "C:\\ajnlp", "C:\\B.JNLP", "C:\\c.xml", "C:\\.jnlp"});
  AnswerDescriptor("");
  AnswerDescriptor("");

  EXPECT_EQ(Configure({}).code, kSuccess);

  Lines expected = CallsUpToTheListing();
  expected.insert(expected.end(),
                  {"ZelAgentGetSecurity()", "LoadFileToString(\"C:\\B.JNLP\")",
                   "SaveFileFromString(\"C:\\B.JNLP\", \"\")", "ZelAgentGetSecurity()",
                   "LoadFileToString(\"C:\\.jnlp\")", "SaveFileFromString(\"C:\\.jnlp\", \"\")"});
  EXPECT_EQ(host.Transcript(), expected);
}

TEST_F(ConfigureJWS, ReplacesUrlsOfOneToFiveDigitsInThePort) {
  EXPECT_EQ(Rewritten("http://o:1/a"), "http://M:80/a");
  EXPECT_EQ(Rewritten("https://o:65535/a"), "http://M:80/a");
  EXPECT_EQ(Rewritten("http://o:123456/a"), "http://o:123456/a");
  EXPECT_EQ(Rewritten("http://o:/a"), "http://o:/a");
  EXPECT_EQ(Rewritten("http://o/a"), "http://o/a");
  EXPECT_EQ(Rewritten("http://o:80"), "http://o:80");
  EXPECT_EQ(Rewritten("httpss://o:80/"), "httpss://o:80/");
}

TEST_F(ConfigureJWS, ReplacesTwoUrlsOfOneLineByOneButEachLineForItself) {
  EXPECT_EQ(Rewritten("a http://o:1/ b https://p:2/ c"), "a http://M:80/ c");
  EXPECT_EQ(Rewritten("http://o:1/ a\r\nhttp://p:2/ b"), "http://M:80/ a\\x0d\\x0ahttp://M:80/ b");
}

TEST_F(ConfigureJWS, ReplacesEveryPropertyUpToTheLastOneOfItsLine) {
  EXPECT_EQ(Rewritten(Property("servername", "a") + Property("other", "b") + "</x>"),
            Property("servername", "M") + "</x>");
  EXPECT_EQ(Rewritten(Property("serverport", "a") + "\n" + Property("serverport", "b")),
            Property("serverport", "80") + "\\x0a" + Property("serverport", "80"));
}

TEST_F(ConfigureJWS, LeavesPropertiesWithoutAValueAlone) {
  for (const char* name : {"servername", "serverport", "ssl"}) {
    EXPECT_EQ(Rewritten(Property(name, "")), Property(name, ""));
  }
}

TEST_F(ConfigureJWS, AddsNoPropertyThatIsMissing) {
  EXPECT_EQ(Rewritten("<jnlp>"), "<jnlp>");
  EXPECT_EQ(Rewritten(""), "");
}

TEST_F(ConfigureJWS, WorksInEachStepOnWhatTheOneBeforeLeft) {
  // An address that reads like what is looked for tells which step was earlier.
  EXPECT_EQ(Rewritten(Property("servername", "old"), "", "http://z:5/"),
            Property("servername", "http://z:5/"));
  EXPECT_EQ(Rewritten("http://o:1/", "", Property("servername", "x").c_str()),
            "http://" + Property("servername", Property("servername", "x")) + ":80/");
  EXPECT_EQ(Rewritten(Property("servername", "old"), "", Property("serverport", "9").c_str()),
            "<property name=\"kvl-servername\" value=\"" + Property("serverport", "80"));
  EXPECT_EQ(Rewritten(Property("servername", "old"), "", Property("ssl", "9").c_str()),
            "<property name=\"kvl-servername\" value=\"" + Property("ssl", "0"));
}

TEST_F(ConfigureJWS, TakesTheAddressAsItStands) {
  EXPECT_EQ(Rewritten("http://o:1/", "", "$1\\0&100%S"), "http://$1\\0&100%S:80/");
  EXPECT_EQ(Rewritten("http://o:1/", "", ""), "http://:80/");
}

TEST_F(ConfigureJWS, TakesThePortAsUnsigned) {
  EXPECT_EQ(Rewritten("http://o:1/", "", "M", -1), "http://M:4294967295/");
}

TEST_F(ConfigureJWS, TakesNoPortOfTheCallers) {
  std::vector<ZelContainer> variants(4, Texts({{"MasterAddress", "M"}}));
  variants[0].SetInt32("MasterHttpPort", 0, kNoIndex);
  variants[1].SetInt32("MasterHttpPort", 8443, kNoIndex);
  variants[2].SetString("MasterHttpPort", "8443", kNoIndex);
  variants[3].SetInt32("Port", 8443, kNoIndex);
  for (const ZelContainer& params : variants) {
    AnswerPort(80);
    AnswerDirectory({"C:\\a.jnlp"});
    AnswerDescriptor("http://o:1/");

    EXPECT_EQ(Configure(params), (Outcome{kSuccess, Describe(params)}));

    EXPECT_EQ(host.Transcript().back(), "SaveFileFromString(\"C:\\a.jnlp\", \"http://M:80/\")");
  }
}

TEST_F(ConfigureJWS, TakesAnAddressThatIsNoTextAsEmpty) {
  ZelContainer number;
  number.SetInt32("MasterAddress", 7, kNoIndex);
  ZelContainer list;
  list.SetString("MasterAddress", "M", 0);
  for (const ZelContainer& params : {number, list}) {
    AnswerPort(80);
    AnswerDirectory({"C:\\a.jnlp"});
    AnswerDescriptor("http://o:1/");

    EXPECT_EQ(Configure(params), (Outcome{kSuccess, Describe(params)}));

    EXPECT_EQ(host.Transcript().back(), "SaveFileFromString(\"C:\\a.jnlp\", \"http://:80/\")");
  }
}

TEST_F(ConfigureJWS, TakesAMissingAddressAsEmpty) {
  AnswerPort(80);
  AnswerDirectory({"C:\\a.jnlp"});
  AnswerDescriptor("http://o:1/");

  EXPECT_EQ(Configure({}), (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(host.Transcript().back(), "SaveFileFromString(\"C:\\a.jnlp\", \"http://:80/\")");
}

TEST_F(ConfigureJWS, DoesNothingWhenThePortIsNotTold) {
  for (const uint32_t code : {1U, kInvokeUnknownAction}) {
    host.ForgetTranscript();
    host.AnswerInvocation(code, [](ZelContainer& work) {
      ZelContainer values;
      values.SetInt32("Port", 80, kNoIndex);
      work.SetContainer("Values", values, kNoIndex);
    });

    EXPECT_EQ(Configure({}), (Outcome{kSuccess, "{}"}));

    EXPECT_THAT(host.Transcript(), ElementsAre(kAskingForThePort));
  }
}

TEST_F(ConfigureJWS, ReportsAPortOfZero) {
  AnswerPort(0);
  EXPECT_EQ(Configure({}), (Outcome{kSuccess, "{}"}));
  EXPECT_THAT(host.Transcript(),
              ElementsAre(kAskingForThePort, "Error \"Failed to configure JWS...\""));

  host.ForgetTranscript();
  host.AnswerInvocation(0);
  EXPECT_EQ(Configure({}), (Outcome{kSuccess, "{}"}));
  EXPECT_THAT(host.Transcript(),
              ElementsAre(kAskingForThePort, "Error \"Failed to configure JWS...\""));
}

TEST_F(ConfigureJWS, DoesNothingWithoutTheDirectory) {
  AnswerPort(80);
  host.AnswerText("CompletePath", kStarterDirectory);
  host.Answer("DirExists", 0);

  EXPECT_EQ(Configure({}), (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(host.Transcript().back(), "DirExists(\"C:\\agent\\ui\\console\\jws\\jnlp\")");
}

TEST_F(ConfigureJWS, DoesNothingInAnEmptyDirectory) {
  AnswerPort(80);
  AnswerDirectory({});

  EXPECT_EQ(Configure({}), (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(host.Transcript(), CallsUpToTheListing());
}

TEST_F(ConfigureJWS, GoesOnBehindFilesThatCannotBeReadOrWritten) {
  AnswerPort(80);
  AnswerDirectory({"C:\\a.jnlp", "C:\\b.jnlp"});
  for (int i = 0; i < 2; ++i) {
    host.AnswerText("ZelAgentGetSecurity", "");
    host.Answer("LoadFileToString", 0);
    host.Answer("SaveFileFromString", 0);
  }

  EXPECT_EQ(Configure({}), (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(host.Transcript().back(), "SaveFileFromString(\"C:\\b.jnlp\", \"\")");
}

TEST_F(ConfigureJWS, SavesNothingOfOneFileIntoTheNext) {
  AnswerPort(80);
  AnswerDirectory({"C:\\a.jnlp", "C:\\b.jnlp"});
  AnswerDescriptor("http://o:1/");
  host.AnswerText("ZelAgentGetSecurity", "");
  host.Answer("LoadFileToString", 0);
  host.Answer("SaveFileFromString", 1);

  EXPECT_EQ(Configure({}), (Outcome{kSuccess, "{}"}));

  EXPECT_EQ(host.Transcript().back(), "SaveFileFromString(\"C:\\b.jnlp\", \"\")");
}

// ---- CoreUtilsGetMasterAttachmentsPath ----

using GetMasterAttachmentsPath = ModuleTest;

TEST_F(GetMasterAttachmentsPath, TellsTheDirectoryBelowTheAgentsData) {
  const std::pair<const char*, const char*> directories[] = {
      {"C:\\agent\\data\\", "C:\\agent\\data\\TarnDatabase\\attachments\\temp"},
      {"/var/lib/zel/data/", "/var/lib/zel/data/TarnDatabase\\attachments\\temp"},
      {"", "TarnDatabase\\attachments\\temp"}};
  for (const auto& [data, path] : directories) {
    host.ForgetTranscript();
    host.AnswerText("ZelAgentGetDataDir", data);

    EXPECT_EQ(Run("CoreUtilsGetMasterAttachmentsPath", {}),
              (Outcome{kSuccess, "{Path: String \"" + std::string(path) + "\"}"}));

    EXPECT_THAT(host.Transcript(), ElementsAre("ZelAgentGetDataDir()"));
  }
}

TEST_F(GetMasterAttachmentsPath, ReadsNothingAndWritesNothingElse) {
  host.AnswerText("ZelAgentGetDataDir", "D:\\");

  EXPECT_EQ(Run("CoreUtilsGetMasterAttachmentsPath", Texts({{"Other", "x"}, {"Path", "y"}})),
            (Outcome{kSuccess,
                     "{Other: String \"x\", Path: String "
                     "\"D:\\TarnDatabase\\attachments\\temp\"}"}));
}

}  // namespace
