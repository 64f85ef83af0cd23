#ifndef STCRYPT_STCRYPT_H
#define STCRYPT_STCRYPT_H

/* Enciphering of the passwords kept in the database parameters file.
 *
 * Passwords are sealed with XChaCha20-Poly1305 (libsodium) under a per-user
 * key: the file named by STCRYPT_KEY_FILE, else $HOME/.dbrc.key, holding
 * exactly 32 raw key bytes and readable by its owner only (a key file that
 * group or others can read is refused). The enciphered text is URL-safe
 * base64 without padding: a random 24-byte nonce followed by the sealed
 * password. Any password up to STCRYPT_MAX_PASSWORD bytes enciphers to fewer
 * than 256 characters.
 *
 * Buffers are STCRYPT_BUF_SIZE (256) bytes; at most that many bytes of `in`
 * are read. On failure the functions return -1, leave `out` as an empty
 * string and log one ERROR line that names the key file.
 *
 * Thread safety: every function may be called from several threads at once, while the program leaves
 * STCRYPT_KEY_FILE and HOME unchanged. */

#ifdef __cplusplus
extern "C" {
#endif

#define STCRYPT_BUF_SIZE 256
#define STCRYPT_MAX_PASSWORD 128

/* Deciphers `in` into `out`. 0 on success, -1 on a missing or unreadable key,
 * a wrong key, a tampered or malformed text. */
int stdecrypt(const char* in, char* out);

/* Enciphers the password `in` into `out`. 0 on success, -1 on failure
 * (missing key, password longer than STCRYPT_MAX_PASSWORD bytes). */
int stencrypt(const char* in, char* out);

/* Creates a new key file at `path` (mode 0600, 32 random bytes). Refuses, with
 * -1, to overwrite an existing file. 0 on success. */
int stcreatekey(const char* path);

/* Writes the key-file path in use (STCRYPT_KEY_FILE, else $HOME/.dbrc.key)
 * into `out` of `size` bytes. 0 on success, -1 if it does not fit or neither
 * variable is set. */
int stkeyfile(char* out, unsigned long size);

#ifdef __cplusplus
}
#endif

#endif
