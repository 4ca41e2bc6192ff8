// Frame encryption and decryption: validates a frame, reads its flags, runs the frame cipher over the
// payload behind the 32-byte header with uiFrameNo as counter, and brings the flags up to date.
#include "stream/frame_crypt.h"

#include "crypto/crypto_internal.h"
#include "log/log_internal.h"
#include "stream/frame_header.h"

namespace {

enum {
    kPlainSpan = 64,                               // payload bytes the plain cipher covers
    kPlainMinFrame = KX_FRAME_HEADER_LEN + kPlainSpan,
    kEncryptMask = 0xFFF2,                         // plain: clears bits 0, 2 and 3
    kEncryptExMask = 0xFF82,                       // enhanced: of the low byte only bits 1 and 7 stay
    kClearMask = 0xFFFC,                           // decrypted: clears bits 0-1
};

// The checks shared by the three frame calls up to the header; 0 when the frame may be worked on.
int check_frame(const unsigned char *frame, int frame_len) {
    if (frame == nullptr) {
        KX_LOG_ERR("_pucFrameBuf == NULL");
        return -101;
    }
    if (frame_len <= 0) {
        KX_LOG_ERR("_iFrameLen <= 0");
        return -104;
    }
    // A buffer too short for the header holds no valid header; it is never read past its end.
    if (frame_len < KX_FRAME_HEADER_LEN ||
        !IsValidFrameHeader(reinterpret_cast<const __S_FrameHeader *>(frame))) {
        KX_LOG_ERR("!IsValidFrameHeader");
        return -102;
    }
    return 0;
}

int check_key(const unsigned char *key, int key_len) {
    if (key == nullptr) {
        KX_LOG_ERR("_pucDecryptKey == NULL");
        return -2;
    }
    if (key_len < 1 || key[0] == '\0') return -2;
    return 0;
}

// The encrypting calls test the frame, then the key.
int check_frame_and_key(const unsigned char *frame, int frame_len, const unsigned char *key, int key_len) {
    int rc = check_frame(frame, frame_len);
    return rc != 0 ? rc : check_key(key, key_len);
}

inline __S_FrameHeader *header_of(unsigned char *frame) { return reinterpret_cast<__S_FrameHeader *>(frame); }

}  // namespace

bool IsEncryptFrameHeader(const __S_FrameHeader *header) { return (fh_flags(header) & 0x3) == 2; }

bool IsEncryptEnhanced(const __S_FrameHeader *header) { return ((fh_flags(header) >> 6) & 0x3) == 2; }

void ResetEncryptFrmHeader(__S_FrameHeader *header) {
    if (header == nullptr) return;
    fh_set_flags(header, (uint16_t)(fh_flags(header) & kClearMask));
}

extern "C" {

KX_API int SA_DecryptOneFrame(unsigned char *_pucFrameBuf, int _iFrameLen, const unsigned char *_pucDecryptKey,
                              int _iDecryptKeyLen) {
    int rc = check_frame(_pucFrameBuf, _iFrameLen);
    if (rc != 0) return rc;
    __S_FrameHeader *header = header_of(_pucFrameBuf);
    if (!IsEncryptFrameHeader(header)) return -3;
    rc = check_key(_pucDecryptKey, _iDecryptKeyLen);
    if (rc != 0) return rc;

    bool enhanced = IsEncryptEnhanced(header);
    unsigned char *payload = _pucFrameBuf + KX_FRAME_HEADER_LEN;
    uint32_t frame_no = fh_frame_no(header);
    if (enhanced) {
        rc = video_AES_CTR_EX(payload, _iFrameLen - KX_FRAME_HEADER_LEN, frame_no, _pucDecryptKey,
                              _iDecryptKeyLen);
    } else {
        if (_iFrameLen < kPlainMinFrame) {
            KX_LOG_ERR("SA_DecryptOneFrame,IsEncryptFrameHeader, but _iFrameLen(%d)<= 64+32 ", _iFrameLen);
            return -104;
        }
        rc = video_AES_CTR(payload, kPlainSpan, frame_no, _pucDecryptKey, _iDecryptKeyLen);
    }
    if (rc != 0) {
        // A key never reaches the log: only its length does.
        KX_LOG_ERR("video_AES_CTR fail! IsEncryptEnhanced = %d key = (%d bytes)", enhanced ? 1 : 0,
                   _iDecryptKeyLen);
        return -4;
    }
    ResetEncryptFrmHeader(header);
    return 0;
}

KX_API int SA_DecryptAES(unsigned char *_pucBuf, int _iBufLen, uint32_t _uiCounter,
                         const unsigned char *_pucDecryptKey, int _iDecryptKeyLen) {
    if (_pucBuf == nullptr) {
        KX_LOG_ERR("_pucBuf == NULL");
        return -101;
    }
    if (_iBufLen < 1) return -104;
    if (_pucDecryptKey == nullptr) {
        KX_LOG_ERR("_pucDecryptKey == NULL");
        return -2;
    }
    if (_iDecryptKeyLen < 1) return -2;
    if (AES_CTR(_pucBuf, _iBufLen, _uiCounter, _pucDecryptKey, _iDecryptKeyLen) != 0) {
        KX_LOG_ERR("video_AES_CTR fail!");
        return -4;
    }
    return 0;
}

KX_API int SA_EncryptOneFrame(unsigned char *_pucFrameBuf, int _iFrameLen, const unsigned char *_pucDecryptKey,
                              int _iDecryptKeyLen) {
    int rc = check_frame_and_key(_pucFrameBuf, _iFrameLen, _pucDecryptKey, _iDecryptKeyLen);
    if (rc != 0) return rc;

    __S_FrameHeader *header = header_of(_pucFrameBuf);
    uint32_t frame_len = fh_frame_len(header);
    // Frames too short for the 64 enciphered bytes stay clear, header included.
    if (frame_len >= KX_FRAME_HEADER_LEN && frame_len < (uint32_t)kPlainMinFrame) return 0;
    // The header may claim more than the buffer holds; the cipher never reaches past the buffer.
    if (_iFrameLen < kPlainMinFrame) {
        KX_LOG_ERR("SA_EncryptOneFrame, _iFrameLen(%d) < 64+32", _iFrameLen);
        return -104;
    }
    fh_set_flags(header, (uint16_t)(fh_flags(header) & kEncryptMask));
    rc = aes_crypt(_pucFrameBuf + KX_FRAME_HEADER_LEN, kPlainSpan, fh_frame_no(header), _pucDecryptKey,
                   _iDecryptKeyLen);
    if (rc != 0) {
        KX_LOG_ERR("aes_crypt fail!");
        return -3;
    }
    return 0;
}

KX_API int SA_EncryptOneFrameEx(unsigned char *_pucFrameBuf, int _iFrameLen, const unsigned char *_pucDecryptKey,
                                int _iDecryptKeyLen) {
    int rc = check_frame_and_key(_pucFrameBuf, _iFrameLen, _pucDecryptKey, _iDecryptKeyLen);
    if (rc != 0) return rc;

    __S_FrameHeader *header = header_of(_pucFrameBuf);
    // A clear frame begins with the start code in the clear, so the start-code test that guards
    // decryption would refuse every frame here: the encrypting road runs without it.
    rc = video_aes_ctr_ex_apply(_pucFrameBuf + KX_FRAME_HEADER_LEN, _iFrameLen - KX_FRAME_HEADER_LEN,
                                fh_frame_no(header), _pucDecryptKey, _iDecryptKeyLen, 0);
    if (rc != 0) {
        KX_LOG_ERR("video_AES_CTR_EX fail!");
        return -3;
    }
    fh_set_flags(header, (uint16_t)(fh_flags(header) & kEncryptExMask));
    return 0;
}

}  // extern "C"
