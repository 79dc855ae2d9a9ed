#include "support/SqlServerEmulator.h"

#include <cstdio>
#include <cwctype>

#include "support/ErrorText.h"
#include "support/PageFormat.h"

namespace zrtest {

namespace {

std::wstring Wide(const std::string& str) { return std::wstring(str.begin(), str.end()); }

std::wstring Lower(std::wstring str) {
    for (wchar_t& c : str) c = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
    return str;
}

std::string Status(std::int32_t iStatus) {
    char sz[16];
    std::snprintf(sz, sizeof sz, "%08x", static_cast<unsigned>(iStatus));
    return sz;
}

// ---------------------------------------------------------------------------
// The statement: RESTORE DATABASE|LOG name FROM DISK = 'x' [, DISK = 'y']...
// [WITH option [, option]...]. Of the options MOVE 'logical' TO 'target' and
// FILE = n count; the others (RECOVERY, NORECOVERY, STOPAT = '...', ...) are
// passed over.
// ---------------------------------------------------------------------------

struct Token {
    wchar_t kind;  // 'w' a word or number, '\'' a quoted string, '[' a bracketed name, else that punctuation
    std::wstring text;
};

// A quoted string ends at a quote not doubled; a bracketed name at a ]
// not doubled. False for text that ends inside one.
bool ReadDelimited(const std::wstring& s, size_t* pi, wchar_t close, std::wstring* pText) {
    for (size_t i = *pi + 1; i < s.size(); ++i) {
        if (s[i] != close) {
            *pText += s[i];
        } else if (i + 1 < s.size() && s[i + 1] == close) {
            *pText += s[i++];
        } else {
            *pi = i + 1;
            return true;
        }
    }
    return false;
}

bool Tokenize(const std::wstring& s, std::vector<Token>* pTokens) {
    for (size_t i = 0; i < s.size();) {
        const wchar_t c = s[i];
        if (std::iswspace(static_cast<wint_t>(c))) {
            ++i;
        } else if (c == L'\'' || c == L'[') {
            Token token{c, {}};
            if (!ReadDelimited(s, &i, c == L'\'' ? L'\'' : L']', &token.text)) return false;
            pTokens->push_back(token);
        } else if (std::iswalnum(static_cast<wint_t>(c)) || c == L'_') {
            Token token{L'w', {}};
            while (i < s.size() && (std::iswalnum(static_cast<wint_t>(s[i])) || s[i] == L'_')) token.text += s[i++];
            pTokens->push_back(token);
        } else {
            pTokens->push_back(Token{c, std::wstring(1, c)});
            ++i;
        }
    }
    return true;
}

class TokenReader {
public:
    explicit TokenReader(std::vector<Token> tokens) : m_tokens(std::move(tokens)) {}
    bool AtEnd() const { return m_i == m_tokens.size(); }
    bool Word(const wchar_t* wszWord) { return Take(L'w', wszWord, nullptr); }
    bool Punctuation(wchar_t c) { return Take(c, nullptr, nullptr); }
    bool String(std::wstring* pText) { return Take(L'\'', nullptr, pText); }
    bool Name() { return Take(L'[', nullptr, nullptr) || Take(L'w', nullptr, nullptr); }
    bool Number(int* pi) {
        if (AtEnd() || m_tokens[m_i].kind != L'w' || !std::iswdigit(static_cast<wint_t>(m_tokens[m_i].text[0])))
            return false;
        *pi = std::stoi(m_tokens[m_i++].text);
        return true;
    }
    // Passes over the rest of an option: up to a comma or the end.
    void SkipOption() {
        while (!AtEnd() && m_tokens[m_i].kind != L',') ++m_i;
    }

private:
    bool Take(wchar_t kind, const wchar_t* wszWord, std::wstring* pText) {
        if (AtEnd() || m_tokens[m_i].kind != kind) return false;
        if (wszWord && Lower(m_tokens[m_i].text) != Lower(wszWord)) return false;
        if (pText) *pText = m_tokens[m_i].text;
        ++m_i;
        return true;
    }

    std::vector<Token> m_tokens;
    size_t m_i = 0;
};

struct RestoreStatement {
    std::vector<std::wstring> disks;
    RestoreOptions options;
};

bool ReadOption(TokenReader& r, RestoreStatement* pStatement) {
    if (r.Word(L"MOVE")) {
        std::wstring strLogical, strTarget;
        if (!r.String(&strLogical) || !r.Word(L"TO") || !r.String(&strTarget)) return false;
        pStatement->options.moves[Lower(strLogical)] = strTarget;
    } else if (r.Word(L"FILE")) {
        if (!r.Punctuation(L'=') || !r.Number(&pStatement->options.iFile)) return false;
    } else {
        r.SkipOption();
    }
    return true;
}

bool ParseRestore(const std::wstring& strSql, RestoreStatement* pStatement) {
    std::vector<Token> tokens;
    if (!Tokenize(strSql, &tokens)) return false;
    TokenReader r(std::move(tokens));
    if (!r.Word(L"RESTORE") || !(r.Word(L"DATABASE") || r.Word(L"LOG")) || !r.Name() || !r.Word(L"FROM")) return false;
    do {
        std::wstring strDisk;
        if (!r.Word(L"DISK") || !r.Punctuation(L'=') || !r.String(&strDisk)) return false;
        pStatement->disks.push_back(strDisk);
    } while (r.Punctuation(L','));
    if (r.Word(L"WITH")) {
        do
            if (!ReadOption(r, pStatement)) return false;
        while (r.Punctuation(L','));
    }
    return r.AtEnd();
}

// A log backup's view ends where the real file's last block begins: the
// filemark that closes the tape. The walk has met the data set's ESET and
// runs out of bytes there, with all that a restore reads.
bool EndsAtItsClosingFilemark(const MtfWalk& walk) {
    return walk.faultOffset == walk.size && !walk.dataSets.empty() && walk.dataSets.back().msci.backupType == 'L' &&
           !walk.blocks.empty() && walk.blocks.back().type == "ESET";
}

}  // namespace

bool SqlServerEmulator::Fail(const std::string& strWhy) {
    m_error = strWhy;
    return false;
}

bool SqlServerEmulator::Restore(const std::wstring& strStatement) {
    m_error.clear();
    RestoreStatement statement;
    if (!ParseRestore(strStatement, &statement)) return Fail("not a RESTORE statement: " + Narrow(strStatement));
    std::vector<std::vector<std::uint8_t>> views(statement.disks.size());
    std::vector<BackupStripe> stripes;
    for (size_t i = 0; i < views.size(); ++i) {
        if (!ReadView(statement.disks[i], &views[i])) return false;
        stripes.push_back({statement.disks[i], MtfSource::FromBytes(views[i].data(), views[i].size())});
    }
    return Restore(stripes, statement.options);
}

bool SqlServerEmulator::Restore(const std::vector<BackupStripe>& stripes, const RestoreOptions& options) {
    std::vector<MtfWalk> walks;
    const MtfSqlConfig* pConfig = nullptr;
    for (const BackupStripe& stripe : stripes) {
        const std::string strName = Narrow(stripe.strName);
        walks.push_back(MtfWalker::Walk(*stripe.pSource));
        const MtfWalk& walk = walks.back();
        if (!walk.ok && !EndsAtItsClosingFilemark(walk))
            return Fail(strName + ": " + walk.fault + " at offset " + std::to_string(walk.faultOffset));
        const MtfDataSet* pSet = walk.DataSet(options.iFile);
        if (!pSet) return Fail(strName + ": no data set " + std::to_string(options.iFile));
        if (!pConfig && pSet->msci.present) pConfig = &pSet->msci;
    }
    if (!pConfig) return Fail("no file of the backup holds its configuration");
    if (pConfig->backupType == 'L') return true;
    bool bOk = MakeDataFiles(*pConfig, options.moves);
    for (size_t i = 0; bOk && i < stripes.size(); ++i)
        bOk = WriteExtents(*stripes[i].pSource, *walks[i].DataSet(options.iFile));
    CloseDataFiles();
    return bOk;
}

bool SqlServerEmulator::ReadView(const std::wstring& strName, std::vector<std::uint8_t>* pBytes) {
    SqlHandle hFile = 0;
    if (std::int32_t iStatus = m_io.Open(strName, false, &hFile))
        return Fail("cannot open " + Narrow(strName) + ": " + Status(iStatus));
    std::uint64_t iSize = 0;
    std::int32_t iStatus = m_io.Size(hFile, &iSize);
    pBytes->clear();
    for (std::uint32_t cbPiece = kFirstViewRead, cbRead = 1; iStatus == 0 && cbRead > 0; cbPiece = kViewRead) {
        const size_t iOffset = pBytes->size();
        pBytes->resize(iOffset + cbPiece);
        iStatus = m_io.Read(hFile, iOffset, pBytes->data() + iOffset, cbPiece, &cbRead);
        pBytes->resize(iOffset + (iStatus == 0 ? cbRead : 0));
    }
    m_io.Close(hFile);
    if (iStatus)
        return Fail("cannot read " + Narrow(strName) + " at offset " + std::to_string(pBytes->size()) + ": " +
                    Status(iStatus));
    if (pBytes->size() != iSize)
        return Fail(Narrow(strName) + " reads " + std::to_string(pBytes->size()) + " bytes, its size says " +
                    std::to_string(iSize));
    m_views.emplace_back(strName, iSize);
    return true;
}

bool SqlServerEmulator::MakeDataFiles(const MtfSqlConfig& config, const std::map<std::wstring, std::wstring>& moves) {
    m_files.clear();
    for (const MtfSqlFile& record : config.files) {
        if (record.fileType != 1) continue;  // the log file
        const auto itMove = moves.find(Lower(Wide(record.logicalName)));
        DataFile& file = m_files[static_cast<std::uint16_t>(record.fileId)];
        file.strName = itMove != moves.end() ? itMove->second : Wide(record.physicalName);
        file.iRecordedSize = record.fileSize;
        std::int32_t iStatus = m_io.Open(file.strName, true, &file.hFile);
        file.bOpen = iStatus == 0;
        if (iStatus == 0) iStatus = m_io.SetSize(file.hFile, file.iRecordedSize);
        if (iStatus) return Fail("cannot make the data file " + Narrow(file.strName) + ": " + Status(iStatus));
    }
    return true;
}

bool SqlServerEmulator::WriteExtents(const MtfSource& source, const MtfDataSet& set) {
    std::string strError;
    const ExtentVisitor write = [&](std::uint16_t iFileId, std::uint32_t iPage, const std::uint8_t* pExtent) {
        const auto it = m_files.find(iFileId);
        if (!strError.empty()) return;
        if (it == m_files.end()) {
            strError = "an extent of file id " + std::to_string(iFileId) + ", which no file record lists";
        } else if (std::int32_t iStatus =
                       m_io.Write(it->second.hFile, std::uint64_t{iPage} * kPageSize, pExtent, kExtentSize)) {
            strError = "cannot write page " + std::to_string(iPage) + " of " + Narrow(it->second.strName) + ": " +
                       Status(iStatus);
        }
    };
    for (const MtfDataRun& run : set.data)
        if (!ForEachExtent(source, run, write, &strError) || !strError.empty()) return Fail(strError);
    return true;
}

bool SqlServerEmulator::OpenDataFiles() {
    for (auto& [iFileId, file] : m_files) {
        if (file.bOpen) continue;
        if (std::int32_t iStatus = m_io.Open(file.strName, false, &file.hFile))
            return Fail("cannot open the data file " + Narrow(file.strName) + ": " + Status(iStatus));
        file.bOpen = true;
    }
    return true;
}

std::int32_t SqlServerEmulator::ReadData(std::uint16_t iFileId, std::uint64_t iOffset, void* pBuffer, std::uint32_t cb,
                                         std::uint32_t* pcbRead) {
    const auto it = m_files.find(iFileId);
    if (it == m_files.end() || !it->second.bOpen) return -1;
    return m_io.Read(it->second.hFile, iOffset, pBuffer, cb, pcbRead);
}

std::int32_t SqlServerEmulator::DataFileSize(std::uint16_t iFileId, std::uint64_t* piSize) {
    const auto it = m_files.find(iFileId);
    if (it == m_files.end() || !it->second.bOpen) return -1;
    return m_io.Size(it->second.hFile, piSize);
}

void SqlServerEmulator::CloseDataFiles() {
    for (auto& [iFileId, file] : m_files) {
        if (file.bOpen) m_io.Close(file.hFile);
        file.bOpen = false;
    }
}

}  // namespace zrtest
