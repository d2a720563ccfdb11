// The file layer: encodings read, the mark written once, sealing checked against OpenSSL.
#include "CommonFunctions.h"
#include "MarkupSTL.h"
#include "StoreTestUtil.h"

#include <openssl/evp.h>
#include <openssl/md5.h>

namespace {

class StoreSealedFile : public TempFolderTest {
protected:
    QString file = Path("x.dat");
    int Read(std::string& out, bool unseal = false) {
        return CCommonFunctions::ReadXMLFile(Wide(file), out, unseal);
    }
    int Save(const char* text, bool seal = false) {
        CMarkupSTL document(text);
        return CCommonFunctions::SaveXmlFile(Wide(file), document, seal);
    }
};

const std::string kPass(SEAL_PASS_PHRASE);

// Triple-DES-CBC by OpenSSL over zero-padded text, with the key padded to 24 bytes.
std::string OpenSslSeal(const std::string& plain, const std::string& iv) {
    std::string key = kPass;
    key.resize(24, '\0');
    std::string padded = plain;
    padded.resize((plain.size() + 7) / 8 * 8, '\0');
    std::string out(padded.size() + 8, '\0');
    int length = 0;
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(context, EVP_des_ede3_cbc(), nullptr,
                       reinterpret_cast<const unsigned char*>(key.data()),
                       reinterpret_cast<const unsigned char*>(iv.data()));
    EVP_CIPHER_CTX_set_padding(context, 0);
    EVP_EncryptUpdate(context, reinterpret_cast<unsigned char*>(&out[0]), &length,
                      reinterpret_cast<const unsigned char*>(padded.data()),
                      static_cast<int>(padded.size()));
    EVP_CIPHER_CTX_free(context);
    out.resize(static_cast<size_t>(length));
    return out;
}

std::string OpenSslMd5(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr);
    return std::string(reinterpret_cast<const char*>(digest), length);
}

TEST_F(StoreSealedFile, ReadsEveryEncodingTheToolsWrite) {
    std::string out;
    WriteBytes(file, kMark + QByteArray("<r>\xC3\xA9</r>\0tail", 14));
    ASSERT_EQ(Read(out), 0);
    EXPECT_EQ(out, "<r>é</r>");
    WriteBytes(file, "junk\r\n<r/>");
    ASSERT_EQ(Read(out), 0);
    EXPECT_EQ(out, "<r/>");
    // UTF-16LE with a character beyond the Basic Multilingual Plane.
    const QString wide = QString::fromUtf8("<r>é😀</r>");
    WriteBytes(file, QByteArray("\xFF\xFE") +
                         QByteArray(reinterpret_cast<const char*>(wide.utf16()), wide.size() * 2));
    ASSERT_EQ(Read(out), 0);
    EXPECT_EQ(out, "<r>é😀</r>");
}

TEST_F(StoreSealedFile, ReadFailures) {
    std::string out = "kept";
    EXPECT_EQ(Read(out), -1); // missing
    WriteBytes(file, "");
    EXPECT_EQ(Read(out), -1);
    WriteBytes(file, "no markup at all");
    EXPECT_EQ(Read(out), -1);
    EXPECT_EQ(CCommonFunctions::ReadXMLFile(L"", out, false), -1);
    EXPECT_EQ(CCommonFunctions::ReadXMLFile(Wide(dir.path()), out, false), -1);
    EXPECT_EQ(out, "kept");
}

TEST_F(StoreSealedFile, SaveWritesTheMarkOnceAndOpensPermissions) {
    ASSERT_EQ(Save("<r>\r\n<k>v</k>\r\n</r>\r\n"), 0);
    EXPECT_EQ(ReadBytes(file), kMark + "<r>\r\n<k>v</k>\r\n</r>\r\n");
    EXPECT_EQ(Mode(file), 0777u);
    ASSERT_EQ(Save("\xEF\xBB\xBF<r/>"), 0);
    EXPECT_EQ(ReadBytes(file), kMark + "<r/>");
    file = Path("missing/x.dat");
    EXPECT_EQ(Save("<r/>"), -1);
    EXPECT_FALSE(QFile::exists(Path("missing")));
    file = dir.path();
    EXPECT_EQ(Save("<r/>"), -1);
}

TEST_F(StoreSealedFile, SealedTextLengthsAndRoundTrips) {
    for (const std::string& plain : {std::string(), std::string("abc"), std::string("12345678"),
                                     std::string("123456789"), std::string(100, 'x')}) {
        const std::string sealed = Encrypt(plain, kPass);
        EXPECT_EQ(sealed.size(), 16 + 16 * ((plain.size() + 7) / 8)) << plain;
        EXPECT_EQ(sealed.find_first_not_of("0123456789ABCDEF"), std::string::npos);
        EXPECT_EQ(Decrypt(sealed, kPass), plain);
    }
    // Trailing zero bytes are taken for padding; leading ones stay.
    EXPECT_EQ(Decrypt(Encrypt(std::string("\0a\0\0", 4), kPass), kPass), std::string("\0a", 2));
    EXPECT_EQ(Decrypt("0102", kPass), "");
}

TEST_F(StoreSealedFile, HexAndRandomBytes) {
    EXPECT_EQ(StrToHex(std::string("\x00\xAB\xFF\x10", 4)), "00ABFF10");
    EXPECT_EQ(HexToStr("4g1"), std::string("\x40\x10"));
    EXPECT_EQ(HexToStr("00abFF"), std::string("\x00\xAB\xFF", 3));
    EXPECT_EQ(GetRandomBytes(200).size(), 128u);
    EXPECT_EQ(GetRandomBytes(-1).size(), 0u);
    EXPECT_EQ(GetRandomBytes(8).size(), 8u);
}

TEST_F(StoreSealedFile, AgreesWithOpenSslTripleDes) {
    const std::string iv("\x01\x23\x45\x67\x89\xAB\xCD\xEF", 8);
    const std::string plain = "<root>\r\n<Strategy>cycle</Strategy>\r\n</root>\r\n";
    const std::string cipher = OpenSslSeal(plain, iv);
    ASSERT_EQ(cipher.size(), 48u);
    EXPECT_EQ(des3(plain, kPass, iv, true), cipher);
    EXPECT_EQ(Decrypt(StrToHex(iv + cipher), kPass), plain);
    WriteBytes(file, kMark + QByteArray::fromStdString(StrToHex(iv + cipher)));
    std::string out;
    ASSERT_EQ(Read(out, true), 0);
    EXPECT_EQ(out, plain);
}

TEST_F(StoreSealedFile, SaveSealsAndReadUnseals) {
    const char* text = "<r>\r\n<k>sealed</k>\r\n</r>\r\n";
    ASSERT_EQ(Save(text, true), 0);
    const QByteArray bytes = ReadBytes(file);
    EXPECT_TRUE(bytes.startsWith(kMark));
    EXPECT_EQ(bytes.size(), 3 + 16 + 16 * 4);
    std::string out;
    ASSERT_EQ(Read(out, true), 0);
    EXPECT_EQ(out, text);
    // The mark test is made before sealing: such a document is stored without one and is lost.
    ASSERT_EQ(Save("\xEF\xBB\xBF<r/>", true), 0);
    EXPECT_FALSE(ReadBytes(file).startsWith(kMark));
    EXPECT_EQ(Read(out, true), -1);
}

TEST_F(StoreSealedFile, DigestsAgreeWithOpenSsl) {
    for (const std::string& text : {std::string(), std::string("abc"), std::string(1000, '\0')})
        EXPECT_EQ(Md5Hash(text), OpenSslMd5(text));
    std::string big;
    for (int i = 0; i < 120000; ++i)
        big.push_back(static_cast<char>(i * 7));
    WriteBytes(file, QByteArray::fromStdString(big));
    EXPECT_EQ(Md5File(file.toStdString()), OpenSslMd5(big));
    EXPECT_EQ(Md5File(Path("missing").toStdString()), "");
}

} // namespace
