package vex.client;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.security.InvalidKeyException;
import java.security.Key;
import java.security.KeyStore;
import java.security.KeyStoreException;
import java.security.KeyStoreSpi;
import java.security.UnrecoverableKeyException;
import java.security.cert.Certificate;
import java.security.cert.CertificateException;
import java.security.cert.X509Certificate;
import java.util.Arrays;
import java.util.Collections;
import java.util.Date;
import java.util.Enumeration;
import java.util.LinkedHashMap;
import java.util.Locale;
import java.util.Map;
import javax.security.auth.callback.Callback;
import javax.security.auth.callback.PasswordCallback;
import javax.security.auth.callback.UnsupportedCallbackException;
import vex.jni.VCTKError;

/** The certificates that the toolkit can sign with, read once when loaded, by their fingerprints in lower case. */
final class SigningKeyStore extends KeyStoreSpi {
    private static final int MAX_URI_BYTES = 1 << 16;

    private final String defaultStore;
    private Map<String, Entry> entries = Collections.emptyMap();
    private Date loaded = new Date(0);

    private static final class Entry {
        final SigningKey key;
        final X509Certificate certificate;

        Entry(SigningKey key, X509Certificate certificate) {
            this.key = key;
            this.certificate = certificate;
        }
    }

    /** @param defaultStore what is opened when load names no store; null if there is none */
    SigningKeyStore(String defaultStore) {
        this.defaultStore = defaultStore;
    }

    @Override
    public void engineLoad(InputStream stream, char[] password) throws IOException, CertificateException {
        load(stream == null ? null : readUri(stream), password);
    }

    @Override
    public void engineLoad(KeyStore.LoadStoreParameter parameter) throws IOException, CertificateException {
        if (parameter == null) {
            load(null, null);
            return;
        }
        char[] password = password(parameter.getProtectionParameter());
        try {
            load(parameter instanceof StoreParameter ? ((StoreParameter) parameter).store() : null, password);
        } finally {
            if (password != null) {
                Arrays.fill(password, '\0');
            }
        }
    }

    private void load(String uri, char[] password) throws IOException, CertificateException {
        String store = uri == null ? defaultStore : uri;
        if (store == null) {
            throw new IOException("No store is named: load a " + StoreParameter.class.getName() + " or a stream with"
                + " the store's URI in it, or give the URI to the provider");
        }
        try {
            StoreSession session =
                StoreSession.open(isNone(password) ? store : StoreText.withPin(store, password));
            Map<String, Entry> found = new LinkedHashMap<>();
            for (CertificateInfo info : session.certificates()) {
                X509Certificate certificate = session.certificate(info.fingerprint());
                SigningKey key = SigningKey.of(session, info.fingerprint(), certificate.getPublicKey());
                found.put(toAlias(info.fingerprint()), new Entry(key, certificate));
            }
            entries = found;
            loaded = new Date();
        } catch (SigningException | InvalidKeyException | IllegalArgumentException e) {
            throw new IOException(e.getMessage(), isPinWrong(e) ? new UnrecoverableKeyException(e.getMessage()) : e);
        }
    }

    /** Tools that ask for a password and get none pass an empty one. */
    private static boolean isNone(char[] password) {
        return password == null || password.length == 0;
    }

    /** KeyStore.load promises this cause to callers that ask again. */
    private static boolean isPinWrong(Exception e) {
        if (!(e instanceof SigningException)) {
            return false;
        }
        int number = ((SigningException) e).number();
        return number == VCTKError.PIN_WRONG || number == VCTKError.PIN_REQUIRED;
    }

    private static String readUri(InputStream stream) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        for (int b = stream.read(); b >= 0; b = stream.read()) {
            bytes.write(b);
            if (bytes.size() > MAX_URI_BYTES) {
                throw notUri();
            }
        }
        String text = new String(bytes.toByteArray(), StandardCharsets.UTF_8).trim();
        if (!text.matches("[A-Za-z][A-Za-z0-9+.-]*:.*")) {
            throw notUri();
        }
        return text;
    }

    private static IOException notUri() {
        return new IOException("The stream does not hold a store's URI, such as file:/path/keys.p12. The store itself"
            + " is not read from a stream: the toolkit reads it from its file");
    }

    private static char[] password(KeyStore.ProtectionParameter protection) throws IOException {
        if (protection == null) {
            return null;
        }
        if (protection instanceof KeyStore.PasswordProtection) {
            char[] password = ((KeyStore.PasswordProtection) protection).getPassword();
            return password == null ? null : password.clone();
        }
        if (protection instanceof KeyStore.CallbackHandlerProtection) {
            PasswordCallback callback = new PasswordCallback("PIN: ", false);
            try {
                ((KeyStore.CallbackHandlerProtection) protection).getCallbackHandler()
                    .handle(new Callback[] {callback});
                return callback.getPassword();
            } catch (UnsupportedCallbackException e) {
                throw new IOException("The callback handler gives no PIN", e);
            } finally {
                callback.clearPassword();
            }
        }
        throw new IOException("A PIN comes from PasswordProtection or CallbackHandlerProtection, not from "
            + protection.getClass().getName());
    }

    private static String toAlias(String name) {
        return name.replace(":", "").toLowerCase(Locale.ROOT);
    }

    private Entry find(String alias) {
        return entries.get(toAlias(alias));
    }

    @Override
    public Key engineGetKey(String alias, char[] password) {
        Entry entry = find(alias);
        return entry == null ? null : entry.key;
    }

    @Override
    public Certificate[] engineGetCertificateChain(String alias) {
        Entry entry = find(alias);
        return entry == null ? null : new Certificate[] {entry.certificate};
    }

    @Override
    public Certificate engineGetCertificate(String alias) {
        Entry entry = find(alias);
        return entry == null ? null : entry.certificate;
    }

    @Override
    public Date engineGetCreationDate(String alias) {
        return find(alias) == null ? null : new Date(loaded.getTime());
    }

    @Override
    public Enumeration<String> engineAliases() {
        return Collections.enumeration(entries.keySet());
    }

    @Override
    public boolean engineContainsAlias(String alias) {
        return find(alias) != null;
    }

    @Override
    public int engineSize() {
        return entries.size();
    }

    @Override
    public boolean engineIsKeyEntry(String alias) {
        return find(alias) != null;
    }

    @Override
    public boolean engineIsCertificateEntry(String alias) {
        return false;
    }

    @Override
    public String engineGetCertificateAlias(Certificate certificate) {
        for (Map.Entry<String, Entry> entry : entries.entrySet()) {
            if (entry.getValue().certificate.equals(certificate)) {
                return entry.getKey();
            }
        }
        return null;
    }

    /** A key needs no password once its store is open. */
    @Override
    public KeyStore.Entry engineGetEntry(String alias, KeyStore.ProtectionParameter protection) {
        Entry entry = find(alias);
        return entry == null
            ? null : new KeyStore.PrivateKeyEntry(entry.key, new Certificate[] {entry.certificate});
    }

    @Override
    public void engineSetKeyEntry(String alias, Key key, char[] password, Certificate[] chain)
            throws KeyStoreException {
        throw readOnly();
    }

    @Override
    public void engineSetKeyEntry(String alias, byte[] key, Certificate[] chain) throws KeyStoreException {
        throw readOnly();
    }

    @Override
    public void engineSetCertificateEntry(String alias, Certificate certificate) throws KeyStoreException {
        throw readOnly();
    }

    @Override
    public void engineDeleteEntry(String alias) throws KeyStoreException {
        throw readOnly();
    }

    @Override
    public void engineStore(OutputStream stream, char[] password) {
        throw new UnsupportedOperationException("The toolkit's stores are read only");
    }

    private static KeyStoreException readOnly() {
        return new KeyStoreException("The toolkit's stores are read only");
    }
}
