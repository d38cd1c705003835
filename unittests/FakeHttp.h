// A fake of the firmware's HTTP client, one instance per NIC: it answers as a server would, refuses,
// never answers, or will not give a pending token back on Cancel; and the fixture that installs one
// on a fake firmware and checks that every child and token is given back.
#pragma once
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "base/Memory.h"
#include "fakes/FakeFirmware.h"
#include "manager/HttpPut.h"

inline EFI_STATUS EFIAPI HttpCreate(EFI_SERVICE_BINDING_PROTOCOL*, EFI_HANDLE* child);
inline EFI_STATUS EFIAPI HttpDestroy(EFI_SERVICE_BINDING_PROTOCOL*, EFI_HANDLE child);
inline EFI_STATUS EFIAPI HttpConfigure(EFI_HTTP_PROTOCOL*, EFI_HTTP_CONFIG_DATA* config);
inline EFI_STATUS EFIAPI HttpRequest(EFI_HTTP_PROTOCOL*, EFI_HTTP_TOKEN* token);
inline EFI_STATUS EFIAPI HttpCancel(EFI_HTTP_PROTOCOL*, EFI_HTTP_TOKEN* token);
inline EFI_STATUS EFIAPI HttpResponse(EFI_HTTP_PROTOCOL*, EFI_HTTP_TOKEN* token);
inline EFI_STATUS EFIAPI HttpPoll(EFI_HTTP_PROTOCOL*);

struct FakeHttp {
  EFI_SERVICE_BINDING_PROTOCOL sb = {HttpCreate, HttpDestroy};
  EFI_HTTP_PROTOCOL http = {nullptr, HttpConfigure, HttpRequest, HttpCancel, HttpResponse, HttpPoll};
  std::vector<EFI_HANDLE> children;
  // How the server behaves, as this NIC reaches it.
  EFI_STATUS configure = EFI_SUCCESS;
  EFI_STATUS request = EFI_SUCCESS; // what Request returns (a refused connection, say)
  bool answers = true;              // the response token completes
  EFI_HTTP_STATUS_CODE code = 4;    // 201 Created
  EFI_STATUS answerStatus = EFI_SUCCESS;
  EFI_STATUS cancelStatus = EFI_SUCCESS; // Not Found: the firmware does not give the token back
  // What it saw.
  std::string sentHeaders;
  std::string sentBody;
  std::u16string url;
  std::vector<std::u16string> urls;
  int cancels = 0;
  bool ipv6 = false; // the child was configured for IPv6
  int puts = 0;
  EFI_HTTP_TOKEN* pending = nullptr;

  static FakeHttp* Of(EFI_SERVICE_BINDING_PROTOCOL* sb) {
    return reinterpret_cast<FakeHttp*>(reinterpret_cast<char*>(sb) - offsetof(FakeHttp, sb));
  }
  static FakeHttp* Of(EFI_HTTP_PROTOCOL* http) {
    return reinterpret_cast<FakeHttp*>(reinterpret_cast<char*>(http) - offsetof(FakeHttp, http));
  }
};

inline EFI_STATUS EFIAPI HttpCreate(EFI_SERVICE_BINDING_PROTOCOL* sb, EFI_HANDLE* child) {
  static uintptr_t next = 0xA00000;
  auto h = reinterpret_cast<EFI_HANDLE>(next += 16);
  FakeFirmware::current->AddProtocol(h, EFI_HTTP_PROTOCOL_GUID, &FakeHttp::Of(sb)->http);
  FakeHttp::Of(sb)->children.push_back(h);
  *child = h;
  return EFI_SUCCESS;
}
inline EFI_STATUS EFIAPI HttpDestroy(EFI_SERVICE_BINDING_PROTOCOL* sb, EFI_HANDLE child) {
  if (std::erase(FakeHttp::Of(sb)->children, child) == 0)
    return EFI_INVALID_PARAMETER;
  FakeFirmware::current->RemoveHandle(child);
  return EFI_SUCCESS;
}
inline EFI_STATUS EFIAPI HttpConfigure(EFI_HTTP_PROTOCOL* http, EFI_HTTP_CONFIG_DATA* config) {
  FakeHttp::Of(http)->ipv6 = config->LocalAddressIsIPv6;
  if (config->LocalAddressIsIPv6) {
    EFI_IPv6_ADDRESS any = {};
    EXPECT_EQ(std::memcmp(&config->IPv6Node->LocalAddress, &any, sizeof(any)), 0);
  } else {
    EXPECT_TRUE(config->IPv4Node->UseDefaultAddress);
  }
  return FakeHttp::Of(http)->configure;
}
inline EFI_STATUS EFIAPI HttpRequest(EFI_HTTP_PROTOCOL* http, EFI_HTTP_TOKEN* token) {
  FakeHttp* f = FakeHttp::Of(http);
  ++f->puts;
  if (EFI_ERROR(f->request))
    return f->request;
  EFI_HTTP_MESSAGE* m = token->Message;
  f->url = m->Data.Request->Url;
  f->urls.push_back(f->url);
  f->sentHeaders.clear();
  for (UINTN i = 0; i < m->HeaderCount; ++i)
    f->sentHeaders += std::string(m->Headers[i].FieldName) + ": " + m->Headers[i].FieldValue + "\n";
  f->sentBody.assign(static_cast<const char*>(m->Body), m->BodyLength);
  token->Status = EFI_SUCCESS;
  return EFI_SUCCESS;
}
inline EFI_STATUS EFIAPI HttpResponse(EFI_HTTP_PROTOCOL* http, EFI_HTTP_TOKEN* token) {
  FakeHttp* f = FakeHttp::Of(http);
  if (!f->answers) {
    f->pending = token;
    return EFI_SUCCESS;
  }
  token->Message->Data.Response->StatusCode = f->code;
  // The firmware hands the answer's headers over in pool memory the caller frees.
  auto* headers = static_cast<EFI_HTTP_HEADER*>(AllocateZeroPool(sizeof(EFI_HTTP_HEADER)));
  if (headers == nullptr)
    return EFI_OUT_OF_RESOURCES;
  headers[0].FieldName = static_cast<CHAR8*>(AllocateCopyPool(7, "Server"));
  headers[0].FieldValue = static_cast<CHAR8*>(AllocateCopyPool(6, "nginx"));
  token->Message->Headers = headers;
  token->Message->HeaderCount = 1;
  token->Status = f->answerStatus;
  return EFI_SUCCESS;
}
inline EFI_STATUS EFIAPI HttpCancel(EFI_HTTP_PROTOCOL* http, EFI_HTTP_TOKEN* token) {
  FakeHttp* f = FakeHttp::Of(http);
  ++f->cancels;
  if (EFI_ERROR(f->cancelStatus))
    return f->cancelStatus;
  if (token == f->pending) {
    f->pending = nullptr;
    token->Status = EFI_ABORTED;
  }
  return EFI_SUCCESS;
}
inline EFI_STATUS EFIAPI HttpPoll(EFI_HTTP_PROTOCOL*) {
  return EFI_SUCCESS;
}

struct HttpOnFakes : ::testing::Test {
  FakeFirmware fw;
  FakeHttp fake;
  EFI_HANDLE nic = reinterpret_cast<EFI_HANDLE>(0xB00000);
  void SetUp() override { fw.AddProtocol(nic, EFI_HTTP_SERVICE_BINDING_PROTOCOL_GUID, &fake.sb); }
  void TearDown() override {
    EXPECT_TRUE(fake.children.empty()); // the child is destroyed on every path
    EXPECT_EQ(fake.pending, nullptr);   // and no token is left for the firmware to write into
    EXPECT_EQ(ExchangesLeftToFirmware(), 0u);
  }
  PutOutcome Put(const char* body = "RESULT result=Passed\r\n") {
    return HttpPut(nic, u"http://10.99.0.1:8080/results/m/r/results.txt", "text/plain", body,
                   std::strlen(body), 10000);
  }
};
