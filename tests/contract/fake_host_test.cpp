// The contract tests are worth as much as the host they run against: it must notice what it should.

#include "tests/fake_host/fake_host.h"

#include <memory>

#include "tests/contract/module_test.h"
#include "tests/fake_host/fake_function_module.h"
#include "windows_api.h"

namespace {

TEST(FakeHost, ComplainsOfACallWithoutAnAnswer) {
  std::vector<std::string> complaints;
  FakeHost host;
  host.ComplainTo([&](const std::string& what) { complaints.push_back(what); });

  EXPECT_EQ(FileExists("C:/a"), 0);

  EXPECT_THAT(complaints, ElementsAre("no answer is scripted for FileExists(\"C:/a\")"));
}

TEST(FakeHost, ComplainsOfAnAnswerWithoutACall) {
  std::vector<std::string> complaints;
  {
    FakeHost host;
    host.ComplainTo([&](const std::string& what) { complaints.push_back(what); });
    host.Answer("FileExists", 1);
    host.Answer("FileGetSize", 5);
    FileExists("C:/a");
  }
  EXPECT_THAT(complaints, ElementsAre("nobody asked for the scripted answer of FileGetSize"));
}

TEST(FakeHost, GivesAnswersInTheirOrder) {
  FakeHost host;
  host.Answer("FileExists", 1);
  host.Answer("FileExists", 0);

  EXPECT_EQ(FileExists("C:/a"), 1);
  EXPECT_EQ(FileExists("C:/b"), 0);

  EXPECT_THAT(host.Transcript(), ElementsAre("FileExists(\"C:/a\")", "FileExists(\"C:/b\")"));
}

TEST(FakeHost, LetsTheThreadIntoAMutexThatHasWaitedLongest) {
  // The host knows a mutex by its address.
  static ZelMutex mutex;
  bool hasBeenIn = false;
  mutex.Lock();
  EXPECT_FALSE(FakeHost::HasWaitingThread());
  const std::future<void> other = std::async(std::launch::async, [&] {
    const ZelMutexLock lock(mutex);
    hasBeenIn = true;
  });
  EXPECT_TRUE(ComesToAMutex(other));

  mutex.Unlock();
  mutex.Lock();

  EXPECT_TRUE(hasBeenIn);
  EXPECT_FALSE(FakeHost::HasWaitingThread());
  mutex.Unlock();
}

TEST(FakeHost, KnowsWhatNeverComesToAMutex) {
  const std::future<void> work = std::async(std::launch::async, [] {});
  EXPECT_FALSE(ComesToAMutex(work));
}

TEST(FakeHost, ThrowsFromTheChosenCallAlone) {
  FakeHost host;
  host.Answer("FileExists", 1);
  host.Answer("FileExists", 1);
  host.FailCall(2, FakeHost::Fault::kThrowOnce);

  EXPECT_EQ(FileExists("C:/a"), 1);
  EXPECT_THROW(FileExists("C:/b"), std::runtime_error);
  EXPECT_EQ(FileExists("C:/c"), 1);
}

TEST(FakeHost, ComplainsOfMoreBytesThanThereIsRoomFor) {
  std::vector<std::string> complaints;
  FakeHost host;
  host.ComplainTo([&](const std::string& what) { complaints.push_back(what); });
  host.AnswerBytes("FileRead", "hello");
  char buffer[4];

  EXPECT_EQ(FileRead(7, buffer, sizeof(buffer)), 0xFFFFFFFF);

  EXPECT_THAT(complaints, ElementsAre("more bytes are scripted than FileRead(7, 4) has room for"));
}

TEST(FakeHost, GivesTheEntriesOfADirectoryInTheirOrder) {
  FakeHost host;
  host.AnswerDirectory({{"b", 2}, {"a", 16}});

  DIR* directory = OpenDirectory("C:/d/");
  ASSERT_NE(directory, nullptr);
  EXPECT_EQ(ZelString(ReadDirectory(directory)->name), "b");
  EXPECT_EQ(directory->attributes, 2u);
  EXPECT_EQ(ZelString(ReadDirectory(directory)->name), "a");
  EXPECT_EQ(directory->attributes, 16u);
  EXPECT_EQ(ReadDirectory(directory), nullptr);
  CloseDirectory(directory);

  EXPECT_THAT(host.Transcript(), ElementsAre("OpenDirectory(\"C:/d/\")", "ReadDirectory",
                                             "ReadDirectory", "ReadDirectory", "CloseDirectory"));
}

TEST(FakeHost, PrefersAnAnswerOfItsOwnToAStandingOne) {
  FakeHost host;
  host.AnswerAlways("FileExists", 1);
  host.Answer("FileExists", 0);

  EXPECT_EQ(FileExists("C:/a"), 0);
  EXPECT_EQ(FileExists("C:/a"), 1);
  EXPECT_EQ(FileExists("C:/a"), 1);
}

TEST(FakeHost, LetsReleasesPassWhenEverythingThrows) {
  FakeHost host;
  host.FailCall(1, FakeHost::Fault::kThrowFromHere);

  EXPECT_NO_THROW(FileClose(7));

  EXPECT_THAT(host.Transcript(), ElementsAre("FileClose(7)"));
}

TEST(FakeHost, ShowsEveryArgumentOfAnInvocation) {
  FakeHost host;
  host.AnswerInvocation(0);
  host.AnswerInvocation(7, {}, "InvokeContainerToMasterWithTempTunnel");
  const ZelString agent = "id";
  ZelContainer params;
  params.SetInt32("N", 1, kNoIndex);
  int reserved = 0;
  const std::string address = std::to_string(reinterpret_cast<uintptr_t>(&reserved));

  EXPECT_EQ(ActionDbInvokeContainer(&agent, "http://h", "Do", &params, &reserved, 5, 6, true), 0u);
  EXPECT_EQ(InvokeContainerToMasterWithTempTunnel("Do", params, nullptr, nullptr, ~0U, 2), 7u);

  EXPECT_THAT(host.Transcript(),
              ElementsAre("ActionDbInvokeContainer(\"id\", \"http://h\", \"Do\", {N: Int32 1}, " +
                              address + ", 5, 6, true)",
                          "InvokeContainerToMasterWithTempTunnel(\"Do\", {N: Int32 1}, null, "
                          "null, ~0, 2)"));
}

TEST(FakeHost, FillsNoTextInWithTheAnswerZero) {
  FakeHost host;
  host.AnswerText("IniFile::GetEntryName", "A", 7);
  host.AnswerText("IniFile::GetEntryName", "B", 0);
  const IniFile file("C:/a.ini");
  ZelString name;

  EXPECT_EQ(file.GetEntryName("Run", 1, name), 7);
  EXPECT_EQ(name, "A");
  EXPECT_EQ(file.GetEntryName("Run", 2, name), 0);
  EXPECT_EQ(name, "A");
}

TEST(FakeHost, TellsAConnectedClientFromOthers) {
  FakeHost host;
  host.Answer("XmlProxyClient::Initialise", 1);
  MarlinContext context(nullptr);
  XmlProxyClient connected;
  XmlProxyClient unconnected;
  connected.Initialise("pipe", 5, 1);
  host.ForgetTranscript();

  for (XmlProxyClient* client : {&connected, &unconnected}) context.SetXmlProxyClient(client);
  context.SetXmlProxyClient(nullptr);

  EXPECT_THAT(host.Transcript(), ElementsAre("MarlinContext::SetXmlProxyClient(client of \"pipe\")",
                                             "MarlinContext::SetXmlProxyClient(unconnected client)",
                                             "MarlinContext::SetXmlProxyClient(null)"));
}

TEST(FakeHost, TellsTheContainerOfAVariableFromOthersThatAreEqual) {
  FakeHost host;
  MarlinContext context(nullptr);
  auto container = std::make_unique<ZelContainer>();
  auto variable = std::make_unique<VarHandle>("ContainerHandle", "Mine", 0);
  variable->SetHandleValue(container.get());
  context.AddVariable(variable.release(), kVarListGlobal);
  host.ForgetTranscript();

  NoteAddContainerVariable(&context, container.release());
  NoteAddContainerVariable(&context, std::make_unique<ZelContainer>().release());
  NoteAddContainerVariable(nullptr, std::make_unique<ZelContainer>().release());
  NoteSetActionInvokeAddress(nullptr);

  EXPECT_THAT(host.Transcript(), ElementsAre("AddContainerVariable(\"Mine\", {})",
                                             "AddContainerVariable(no variable, {})",
                                             "AddContainerVariable(unknown context, {})",
                                             "SetActionInvokeAddress(another function)"));
}

TEST(FakeHost, ComplainsOfAnErrorListThatIsNotTheContexts) {
  std::vector<std::string> complaints;
  FakeHost host;
  host.ComplainTo([&](const std::string& what) { complaints.push_back(what); });
  host.AnswerText("ErrorList::GetErrorName", "NAME");
  host.AnswerText("ErrorList::GetErrorName", "NAME");
  const MarlinContext context(nullptr);

  context.GetErrorList().GetErrorName(1);
  EXPECT_THAT(complaints, IsEmpty());
  ErrorList().GetErrorName(1);

  EXPECT_THAT(complaints, ElementsAre("the error list is not the context's own"));
}

TEST(FakeHost, TellsWhoWatchesOfEachCallBeforeItIsAnswered) {
  std::vector<std::string> lines;
  FakeHost host;
  host.Answer("FileExists", 1);
  host.FailCall(2, FakeHost::Fault::kThrowOnce);
  host.WatchCalls([&](std::string_view line) {
    lines.emplace_back(line);
    EXPECT_EQ(host.Transcript().back(), line);
  });

  EXPECT_EQ(FileExists("a"), 1);
  EXPECT_THROW(ZelAgentGetAppHandle(), std::runtime_error);
  host.NoteRelease("~Something");
  host.WatchCalls({});
  host.Note("unwatched");

  EXPECT_THAT(lines, ElementsAre("FileExists(\"a\")", "ZelAgentGetAppHandle()", "~Something"));
}

TEST(FakeHost, ShowsWhereADatagramGoesAsAPersonWritesIt) {
  FakeHost host;
  host.Answer("CreateUdp", 1);
  host.Answer("SendTo", -1);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(0x0102);
  to.sin_addr.s_addr = htonl(0x0A000005);
  char data[] = "a\xFF";

  EXPECT_EQ(SocketFactory::CreateUdp()->SendTo(to, data, 2), -1);

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre("CreateUdp()", "SendTo({2, 258, 167772165}, \"a\\xff\", 2)", "~NetworkSocket"));
}

TEST(FakeHost, KeepsAnAddressWhenATextIsNone) {
  FakeHost host;
  host.Answer("IpAddress::SetTo", 0xFFFFFFFF);
  host.Answer("IpAddress::SetToHostName", -1);
  IpAddress address;

  EXPECT_TRUE(address.SetTo("255.255.255.255"));
  EXPECT_FALSE(address.SetToHostName("nobody"));

  EXPECT_EQ(address.GetAsInt32(), 0xFFFFFFFF);
}

TEST(FakeHost, TellsARecordOfAShareThatIsNotTheOneThatWasFilledIn) {
  FakeHost host;
  host.Answer("SmbTreeConnect", 1);
  host.Answer("SmbTreeConnect", 0);
  CsSmbClient client(1);
  _CsSmbTreeInfo tree{};
  _CsSmbTreeInfo other{};
  other.share[255] = u'x';

  EXPECT_EQ(client.SmbTreeConnect("a", tree), 1);
  EXPECT_EQ(client.SmbTreeConnect("b", other), 0);
  client.SmbTreeDisconnect(tree);
  client.SmbTreeDisconnect(other);

  EXPECT_THAT(host.Transcript(),
              ElementsAre("CsSmbClient(1)", "SmbTreeConnect(\"a\", zeroed)",
                          "SmbTreeConnect(\"b\", not zeroed)", "SmbTreeDisconnect(filled)",
                          "SmbTreeDisconnect(not filled)"));
}

TEST(Describe, ShowsEveryTypeAndLists) {
  ZelContainer container = Texts({{"Text", "a\n"}});
  container.SetInt32("Small", -1, kNoIndex);
  container.SetInt64("Large", 1LL << 40, kNoIndex);
  container.SetBool("Flag", true, kNoIndex);
  container.SetContainer("Inner", Texts({{"K", "v"}}), kNoIndex);
  container.SetString("One", "x", 0);
  container.SetInt32("List", 1, 0);
  container.SetInt32("List", 2, 1);

  EXPECT_EQ(Describe(container),
            "{Text: String \"a\\x0a\", Small: Int32 -1, Large: Int64 1099511627776, "
            "Flag: Bool true, Inner: {K: String \"v\"}, One: [String \"x\"], "
            "List: [Int32 1, Int32 2]}");
  EXPECT_EQ(Describe(ZelContainer()), "{}");
}

}  // namespace
