// The images of a package installed with the suite's throw-away signing
// identity (tests/package/CheckSigning.cmake installs it and runs this
// program on it): what Windows checks before it trusts them, as far as Wine
// shows it. Wine's WinVerifyTrust does not insist on a trusted root, so the
// chain is also built here by a chain engine that trusts the test root and no
// root of the machine's stores (TestRootEngine). Wine 8 does not flag an
// untrusted root at all; the case without the test root runs on Windows.
//   AMBREL_SIGNED_PACKAGE  the package's bin folder
//   AMBREL_TEST_ROOT       the test root certificate (PEM)
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "common/WinResource.h"
#include "diagnose/LibrarySignature.h"
#include "haldo_sdk/SignatureCheck.h"
#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

// The signing certificate tests/support/standin/make-test-pki.sh makes.
constexpr const wchar_t* kTestSigner = L"CN=Ambrel Test Package Signing, O=\"Tavrel, Inc\"";

std::wstring Variable(const wchar_t* name) {
  const wchar_t* value = ::_wgetenv(name);
  return value ? value : L"";
}

std::wstring PackageFile(const wchar_t* name) { return Variable(L"AMBREL_SIGNED_PACKAGE") + L"\\" + name; }

// A memory store holding the test root, read from its PEM file.
UniqueCertStore TestRootStore() {
  const std::string pem = test::ReadFileBytes(Variable(L"AMBREL_TEST_ROOT"));
  DWORD size = 0;
  if (pem.empty() || !::CryptStringToBinaryA(pem.c_str(), static_cast<DWORD>(pem.size()), CRYPT_STRING_BASE64HEADER,
                                             nullptr, &size, nullptr, nullptr)) {
    return {};
  }
  std::vector<BYTE> der(size);
  if (!::CryptStringToBinaryA(pem.c_str(), static_cast<DWORD>(pem.size()), CRYPT_STRING_BASE64HEADER, der.data(), &size,
                              nullptr, nullptr)) {
    return {};
  }
  UniqueCertStore store(::CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr));
  if (store && !::CertAddEncodedCertificateToStore(store.get(), X509_ASN_ENCODING, der.data(), size, CERT_STORE_ADD_NEW,
                                                   nullptr)) {
    return {};
  }
  return store;
}

struct ChainVerdict {
  DWORD errorStatus = 0xFFFFFFFF;  // the chain's CERT_TRUST_* error bits
  LONG authenticodePolicy = -1;    // CertVerifyCertificateChainPolicy's dwError
  std::wstring rootSubject;
};

// A chain engine that trusts the test root, or no root at all, and no store of
// the machine. Windows 7 and later take the roots as the engine's exclusive
// roots. Wine 8 rejects that configuration (E_INVALIDARG); there the engine
// reads the current user's Root store from a registry sandbox, into which the
// root is put, so the machine's hives are never touched.
class TestRootEngine {
 public:
  explicit TestRootEngine(bool trustTestRoot) {
    roots_ =
        trustTestRoot ? TestRootStore() : UniqueCertStore(::CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr));
    if (!roots_) return;
    CERT_CHAIN_ENGINE_CONFIG config{};
    config.cbSize = sizeof config;
    config.hExclusiveRoot = roots_.get();
    if (::CertCreateCertificateChainEngine(&config, engine_.put())) return;
    sandbox_ = std::make_unique<test::RegistrySandbox>();
    if (trustTestRoot) {
      const UniqueCertStore userRoot(
          ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, L"Root"));
      const UniqueCertContext root(::CertEnumCertificatesInStore(roots_.get(), nullptr));
      if (!userRoot || !root ||
          !::CertAddCertificateContextToStore(userRoot.get(), root.get(), CERT_STORE_ADD_NEW, nullptr)) {
        return;
      }
    }
    config = CERT_CHAIN_ENGINE_CONFIG{};
    config.cbSize = offsetof(CERT_CHAIN_ENGINE_CONFIG, hExclusiveRoot);
    if (!::CertCreateCertificateChainEngine(&config, engine_.put())) engine_ = UniqueCertChainEngine();
  }
  HCERTCHAINENGINE get() const { return engine_.get(); }

 private:
  UniqueCertStore roots_;
  std::unique_ptr<test::RegistrySandbox> sandbox_;
  UniqueCertChainEngine engine_;
};

// The signer's chain, built by an engine that trusts the test root or nothing.
ChainVerdict BuildChain(const std::wstring& file, bool trustTestRoot) {
  ChainVerdict verdict;
  const UniqueCertContext signer = diagnose::SignerCertificate(file);
  if (!signer) return verdict;
  const TestRootEngine engine(trustTestRoot);
  if (!engine.get()) return verdict;
  CERT_CHAIN_PARA para{};
  para.cbSize = sizeof para;
  UniqueCertChain chain;
  if (!::CertGetCertificateChain(engine.get(), signer.get(), nullptr, signer.get()->hCertStore, &para, 0, nullptr,
                                 chain.put())) {
    return verdict;
  }
  verdict.errorStatus = chain.get()->TrustStatus.dwErrorStatus;
  CERT_CHAIN_POLICY_PARA policy{};
  policy.cbSize = sizeof policy;
  CERT_CHAIN_POLICY_STATUS status{};
  status.cbSize = sizeof status;
  if (::CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_AUTHENTICODE, chain.get(), &policy, &status))
    verdict.authenticodePolicy = static_cast<LONG>(status.dwError);
  const CERT_SIMPLE_CHAIN* simple = chain.get()->rgpChain[0];
  const PCCERT_CONTEXT root = simple->rgpElement[simple->cElement - 1]->pCertContext;
  std::wstring name(256, L'\0');
  const DWORD length = ::CertGetNameStringW(root, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, name.data(),
                                            static_cast<DWORD>(name.size()));
  name.resize(length > 0 ? length - 1 : 0);
  verdict.rootSubject = name;
  return verdict;
}

class SignedPackage : public ::testing::TestWithParam<const wchar_t*> {
 protected:
  void SetUp() override {
    ASSERT_FALSE(Variable(L"AMBREL_SIGNED_PACKAGE").empty()) << "run by tests/package/CheckSigning.cmake";
    file_ = PackageFile(GetParam());
    ASSERT_NE(::GetFileAttributesW(file_.c_str()), INVALID_FILE_ATTRIBUTES) << test::Narrow(file_);
  }
  std::wstring file_;
};

TEST_P(SignedPackage, WinVerifyTrustAcceptsTheImage) { EXPECT_EQ(TrustStatus(file_), 0); }

TEST_P(SignedPackage, TheSignerIsTheTestCertificate) {
  EXPECT_EQ(diagnose::SignerSubject(file_), kTestSigner);
  // The library's own publisher check, as it judges the installer SDK.
  EXPECT_EQ(SearchPublisher(file_, kSdkPublisher).outcome, PublisherSearch::Outcome::Found);
  EXPECT_EQ(SearchPublisher(file_, L"Northwind Software").outcome, PublisherSearch::Outcome::NotFound);
}

TEST_P(SignedPackage, TheChainEndsAtTheTestRootWhereThatRootIsTrusted) {
  ASSERT_TRUE(TestRootStore()) << "cannot read AMBREL_TEST_ROOT";
  const ChainVerdict trusted = BuildChain(file_, true);
  EXPECT_EQ(trusted.errorStatus, static_cast<DWORD>(CERT_TRUST_NO_ERROR));
  EXPECT_EQ(trusted.authenticodePolicy, 0);
  EXPECT_EQ(trusted.rootSubject, L"Ambrel Test Root");
}

// Wine's ntdll carries an export of its own.
bool UnderWine() {
  const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
  return ntdll != nullptr && ::GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

TEST_P(SignedPackage, WithoutTheTestRootTheChainIsUntrusted) {
  // What a machine that does not trust the test root (every machine) sees.
  // Wine 8 builds the chain without flagging an untrusted root, so it cannot
  // show this; CheckSigning.cmake shows it with osslsigncode instead.
  if (UnderWine()) GTEST_SKIP() << "Wine does not flag untrusted roots";
  const ChainVerdict untrusted = BuildChain(file_, false);
  EXPECT_NE(untrusted.errorStatus & CERT_TRUST_IS_UNTRUSTED_ROOT, 0u);
  EXPECT_EQ(untrusted.authenticodePolicy, static_cast<LONG>(CERT_E_UNTRUSTEDROOT));
}

// Every image the package ships: the library, the support tool, and the C++
// runtime DLLs beside them where the package carries its own (mingw-w64; an
// MSVC package ships none, its hosts install Microsoft's runtime).
std::vector<const wchar_t*> ShippedImages() {
  static const std::vector<std::wstring> names = [] {
    std::vector<std::wstring> list = {L"Ambrel.dll", L"ambrel-diagnose.exe"};
    const std::wstring runtime = AMBREL_SHIPPED_RUNTIME_NAMES;
    for (std::size_t start = 0; start < runtime.size();) {
      const std::size_t end = std::min(runtime.find(L'|', start), runtime.size());
      list.push_back(runtime.substr(start, end - start));
      start = end + 1;
    }
    return list;
  }();
  std::vector<const wchar_t*> images;
  for (const std::wstring& name : names) images.push_back(name.c_str());
  return images;
}
INSTANTIATE_TEST_SUITE_P(Images, SignedPackage, ::testing::ValuesIn(ShippedImages()));

TEST(SignedPackageDll, VersionResourceStillReads) {
  const std::wstring file = PackageFile(L"Ambrel.dll");
  DWORD handle = 0;
  const DWORD size = ::GetFileVersionInfoSizeW(file.c_str(), &handle);
  ASSERT_NE(size, 0u);
  std::vector<unsigned char> data(size);
  ASSERT_TRUE(::GetFileVersionInfoW(file.c_str(), 0, size, data.data()));
  void* value = nullptr;
  UINT length = 0;
  ASSERT_TRUE(::VerQueryValueW(data.data(), L"\\StringFileInfo\\040904b0\\CompanyName", &value, &length));
  EXPECT_STREQ(static_cast<const wchar_t*>(value), L"Tavrel, Inc");
}

TEST(SignedPackageDll, LoadsAndBindsAnExport) {
  const UniqueModule module(::LoadLibraryW(PackageFile(L"Ambrel.dll").c_str()));
  ASSERT_TRUE(module) << ::GetLastError();
  EXPECT_NE(::GetProcAddress(module.get(), "InitializeQel"), nullptr);
}

}  // namespace
}  // namespace ambrel
