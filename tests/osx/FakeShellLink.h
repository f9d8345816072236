// A link object of the test's own: each step answers what the test chose and
// every call is counted, for the answers the shell's link object under Wine
// never gives (a failing GetPath, a missing IPersistFile, a failing Save).
#pragma once

#include <windows.h>
#include <shobjidl.h>

#include <string>

namespace ambrel::test {

class FakeShellLink final : public IShellLinkW, public IPersistFile {
 public:
  // Chosen answers.
  HRESULT queryPersistResult = S_OK;
  bool queryPersistGivesNull = false;
  HRESULT loadResult = S_OK;
  HRESULT getPathResult = S_OK;
  std::wstring getPathText = L"C:\\Target\\app.exe";
  HRESULT setPathResult = S_OK;
  HRESULT saveResult = S_OK;

  // What happened.
  LONG references = 1;  // the creator's reference
  int loadCalls = 0;
  int getPathCalls = 0;
  int setPathCalls = 0;
  int saveCalls = 0;
  int resolveCalls = 0;
  std::wstring loadedFile;
  DWORD loadMode = 0xFFFFFFFF;
  int getPathCapacity = -1;
  WIN32_FIND_DATAW* getPathFindData = reinterpret_cast<WIN32_FIND_DATAW*>(1);
  DWORD getPathFlags = 0xFFFFFFFF;
  std::wstring newTarget;
  std::wstring savedFile;
  BOOL saveRemember = 2;

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    *out = nullptr;
    if (iid == IID_IUnknown || iid == IID_IShellLinkW) {
      *out = static_cast<IShellLinkW*>(this);
    } else if (iid == IID_IPersistFile) {
      if (FAILED(queryPersistResult)) return queryPersistResult;
      if (queryPersistGivesNull) return S_OK;
      *out = static_cast<IPersistFile*>(this);
    } else {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++references); }
  ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--references); }  // owned by the test

  // IShellLinkW
  HRESULT STDMETHODCALLTYPE GetPath(LPWSTR file, int cch, WIN32_FIND_DATAW* findData, DWORD flags) override {
    ++getPathCalls;
    getPathCapacity = cch;
    getPathFindData = findData;
    getPathFlags = flags;
    if (SUCCEEDED(getPathResult)) lstrcpynW(file, getPathText.c_str(), cch);
    return getPathResult;
  }
  HRESULT STDMETHODCALLTYPE SetPath(LPCWSTR file) override {
    ++setPathCalls;
    newTarget = file ? file : L"(null)";
    return setPathResult;
  }
  HRESULT STDMETHODCALLTYPE Resolve(HWND, DWORD) override {
    ++resolveCalls;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetIDList(PIDLIST_ABSOLUTE*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetIDList(PCIDLIST_ABSOLUTE) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetDescription(LPWSTR, int) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetDescription(LPCWSTR) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetWorkingDirectory(LPWSTR, int) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetWorkingDirectory(LPCWSTR) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetArguments(LPWSTR, int) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetArguments(LPCWSTR) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetHotkey(WORD*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetHotkey(WORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetShowCmd(int*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetShowCmd(int) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetIconLocation(LPWSTR, int, int*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetIconLocation(LPCWSTR, int) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetRelativePath(LPCWSTR, DWORD) override { return E_NOTIMPL; }

  // IPersistFile
  HRESULT STDMETHODCALLTYPE GetClassID(CLSID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE IsDirty() override { return S_FALSE; }
  HRESULT STDMETHODCALLTYPE Load(LPCOLESTR file, DWORD mode) override {
    ++loadCalls;
    loadedFile = file ? file : L"(null)";
    loadMode = mode;
    return loadResult;
  }
  HRESULT STDMETHODCALLTYPE Save(LPCOLESTR file, BOOL remember) override {
    ++saveCalls;
    savedFile = file ? file : L"(null)";
    saveRemember = remember;
    return saveResult;
  }
  HRESULT STDMETHODCALLTYPE SaveCompleted(LPCOLESTR) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE GetCurFile(LPOLESTR*) override { return E_NOTIMPL; }
};

}  // namespace ambrel::test
