#include <windows.h>
#include <mapi.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <locale>
#include <memory>
#include <string>

#include "Ambrel.h"
#include "common/ModuleHelpers.h"
#include "common/TextConvert.h"
#include "common/WinResource.h"

namespace {

// An attachment's position that places it outside the body text.
constexpr ULONG kAttachmentOutsideBody = 0xFFFFFFFF;

// Simple MAPI takes texts in the ANSI code page.
std::string MapiText(const wchar_t* text) { return ambrel::WideToCodePageInDoubleLength(text, CP_ACP); }

// The file name part of a path: what follows its last backslash.
const wchar_t* FileNamePart(const wchar_t* path) {
  const wchar_t* name = path;
  for (const wchar_t* at = path; *at != L'\0'; ++at) {
    if (*at == L'\\') name = at + 1;
  }
  return name;
}

}  // namespace

bool OSxMisc::SendEMail(const wchar_t* recipient, const wchar_t* subject, const wchar_t* body,
                        const wchar_t* attachment) {
  // Loaded for this call only; released after everything handed to it.
  const ambrel::UniqueModule mapi(::LoadLibraryW(L"MAPI32.DLL"));
  if (!mapi) return false;
  const auto sendMail = ambrel::GetExport<LPMAPISENDMAIL>(mapi.get(), "MAPISendMail");
  if (sendMail == nullptr) return false;

  MapiMessage message{};

  std::string recipientName;
  std::string recipientAddress;
  std::unique_ptr<MapiRecipDesc> recipientRecord;
  if (recipient != nullptr) {
    recipientName = MapiText(recipient);
    recipientAddress = MapiText((std::wstring(L"SMTP:") + recipient).c_str());
    recipientRecord = std::make_unique<MapiRecipDesc>();
    *recipientRecord = MapiRecipDesc{};
    recipientRecord->ulRecipClass = MAPI_TO;
    recipientRecord->lpszName = recipientName.data();
    recipientRecord->lpszAddress = recipientAddress.data();
    message.nRecipCount = 1;
    message.lpRecips = recipientRecord.get();
  }

  std::string subjectText;
  if (subject != nullptr || attachment != nullptr) {
    subjectText = MapiText(subject != nullptr ? subject : FileNamePart(attachment));
    message.lpszSubject = subjectText.data();
  }

  std::string bodyText;
  if (body != nullptr) {
    bodyText = MapiText(body);
    message.lpszNoteText = bodyText.data();
  }

  std::string attachmentPath;
  std::unique_ptr<MapiFileDesc> attachmentRecord;
  if (attachment != nullptr) {
    attachmentPath = MapiText(attachment);
    attachmentRecord = std::make_unique<MapiFileDesc>();
    *attachmentRecord = MapiFileDesc{};
    attachmentRecord->nPosition = kAttachmentOutsideBody;
    attachmentRecord->lpszPathName = attachmentPath.data();
    attachmentRecord->lpszFileName = attachmentPath.data();
    message.nFileCount = 1;
    message.lpFiles = attachmentRecord.get();
  }

  // No session, no parent window; the mail program may ask for a log-on and
  // shows its compose dialog.
  const ULONG result = sendMail(0, 0, &message, MAPI_LOGON_UI | MAPI_DIALOG, 0);
  // A cancelled dialog counts as success.
  return result == SUCCESS_SUCCESS || result == MAPI_USER_ABORT;
}

bool OSxMisc::IsEnglish() { return std::locale() == std::locale::classic(); }

bool OSxMisc::IsKeyPressed(int virtualKey) { return ::GetKeyState(virtualKey) < 0; }

void OSxMisc::Uint16ToWchar(wchar_t* destination, const unsigned short* source, size_t count) {
  // Forward, unit by unit, whatever the areas' overlap. Each unit travels as
  // bytes through a local: byte copies may alias anything, so no optimiser can
  // assume the wchar_t and unsigned short areas are apart and turn the loop
  // into a block copy (typed element accesses would let it).
  unsigned char* to = reinterpret_cast<unsigned char*>(destination);
  const unsigned char* from = reinterpret_cast<const unsigned char*>(source);
  for (size_t i = 0; i < count; ++i) {
    std::array<unsigned char, sizeof(unsigned short)> unit{};
    std::memcpy(unit.data(), from + i * unit.size(), unit.size());
    std::memcpy(to + i * unit.size(), unit.data(), unit.size());
  }
}

// WcharToUint16 is the same routine under a second exported name (wchar_t is
// 16 bits on Windows, so the two signatures copy identically).
#if defined(_MSC_VER)
// Compiler-specific (MSVC): export the second name at the first one's address,
// and resolve calls from inside the library to it.
#pragma comment(linker, "/EXPORT:?WcharToUint16@OSxMisc@@SAXPEAGPEB_W_K@Z=?Uint16ToWchar@OSxMisc@@SAXPEA_WPEBG_K@Z")
#pragma comment( \
        linker, "/ALTERNATENAME:?WcharToUint16@OSxMisc@@SAXPEAGPEB_W_K@Z=?Uint16ToWchar@OSxMisc@@SAXPEA_WPEBG_K@Z")
#else
// Compiler-specific (clang and GCC for mingw): define the second name as an
// assembler alias of the first, and export it through the object's linker
// directives, which GNU ld and lld both read (GCC ignores #pragma comment).
__asm__(
    ".globl _ZN7OSxMisc13WcharToUint16EPtPKwy\n"
    ".set _ZN7OSxMisc13WcharToUint16EPtPKwy, _ZN7OSxMisc13Uint16ToWcharEPwPKty\n"
    ".section .drectve\n"
    ".ascii \" -export:_ZN7OSxMisc13WcharToUint16EPtPKwy\"\n"
    ".text\n");
#endif
