package vex.client;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.Key;
import java.security.KeyStore;
import java.security.KeyStoreException;
import java.security.KeyStoreSpi;
import java.security.PrivateKey;
import java.security.UnrecoverableKeyException;
import java.security.cert.Certificate;
import java.security.cert.X509Certificate;
import java.util.Arrays;
import java.util.Collections;
import java.util.Date;
import java.util.Enumeration;
import java.util.Iterator;
import java.util.LinkedHashMap;
import java.util.Locale;
import java.util.Map;
import java.util.logging.Logger;
import java.util.regex.Pattern;
import javax.security.auth.callback.Callback;
import javax.security.auth.callback.PasswordCallback;
import javax.security.auth.callback.UnsupportedCallbackException;
import vex.jni.VCTKError;

/**
 * The certificates that the toolkit can sign with, as they were when the KeyStore was loaded. An alias is a fingerprint
 * in lower case. Keys that cannot be used are passed over.
 */
final class SigningKeyStore extends KeyStoreSpi {
    private static final int MAX_URI_BYTES = 1 << 16;
    private static final String READ_ONLY = "The toolkit's stores are read only";
    /** The toolkit does not decode attribute names, so no percent-encoding can hide this one. */
    private static final Pattern MODULE_PATH = Pattern.compile("[?&;]module-path\\b", Pattern.CASE_INSENSITIVE);

    private final String defaultStore;
    private Map<String, Entry> entries = Collections.emptyMap();
    /** The reasons why keys were passed over, by alias. */
    private Map<String, GeneralSecurityException> passedOver = Collections.emptyMap();
    private Date loaded = new Date(0);

    private static final class Entry {
        final PrivateKey key;
        /** The certificate of the key is the first. */
        final X509Certificate[] chain;

        Entry(PrivateKey key, X509Certificate[] chain) {
            this.key = key;
            this.chain = chain;
        }
    }

    /** @param defaultStore the URI of the store to open when load names none; null if there is no such store */
    SigningKeyStore(String defaultStore) {
        this.defaultStore = defaultStore;
    }

    @Override
    public void engineLoad(InputStream stream, char[] password) throws IOException {
        String uri = stream == null ? null : readUri(stream);
        if (uri != null && MODULE_PATH.matcher(uri).find()) {
            throw new IOException("A store's URI in a stream must not have the attribute module-path, because it names"
                + " code to run; load a " + StoreParameter.class.getName() + " or give the URI to the provider");
        }
        load(uri, password);
    }

    @Override
    public void engineLoad(KeyStore.LoadStoreParameter parameter) throws IOException {
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

    private void load(String uri, char[] password) throws IOException {
        String store = uri == null ? defaultStore : uri;
        if (store == null) {
            throw new IOException("No store is named; load a " + StoreParameter.class.getName() + " or a stream with"
                + " the store's URI, or give the URI to the provider");
        }
        try {
            StoreSession session =
                StoreSession.open(isNone(password) ? store : StoreText.withPin(store, password));
            Map<String, Entry> found = new LinkedHashMap<>();
            Map<String, GeneralSecurityException> failed = new LinkedHashMap<>();
            for (CertificateInfo info : session.certificates()) {
                String alias = toAlias(info.fingerprint());
                try {
                    X509Certificate[] chain = session.chain(info);
                    SigningKey key = SigningKey.of(session, info.fingerprint(), chain[0].getPublicKey());
                    found.put(alias, new Entry(key.shown(), chain));
                } catch (GeneralSecurityException e) {
                    failed.put(alias, e);
                }
            }
            if (found.isEmpty() && !failed.isEmpty()) {
                throw noneLoaded(failed);
            }
            failed.forEach(PassedOverKeys::log);
            entries = found;
            passedOver = failed;
            loaded = new Date();
        } catch (SigningException e) {
            throw failure("", e);
        } catch (IllegalArgumentException e) {
            throw new IOException(e.getMessage(), e);
        }
    }

    private static IOException noneLoaded(Map<String, GeneralSecurityException> failed) {
        Iterator<GeneralSecurityException> reasons = failed.values().iterator();
        GeneralSecurityException first = reasons.next();
        IOException e = failure("None of the store's keys can be used: ", first);
        reasons.forEachRemaining(e::addSuppressed);
        return e;
    }

    /** A wrong PIN has the cause that KeyStore.load promises, so that callers can ask for the PIN again. */
    private static IOException failure(String what, GeneralSecurityException reason) {
        return new IOException(what + reason.getMessage(), isPinWrong(reason) ? unrecoverable(reason) : reason);
    }

    private static UnrecoverableKeyException unrecoverable(GeneralSecurityException reason) {
        UnrecoverableKeyException e = new UnrecoverableKeyException(reason.getMessage());
        e.initCause(reason);
        return e;
    }

    /** A separate class: a Java runtime may have no module java.logging. */
    private static final class PassedOverKeys {
        static void log(String alias, GeneralSecurityException reason) {
            try {
                Logger.getLogger(SigningKeyStore.class.getName()).warning(
                    "The key of the certificate " + alias + " is passed over: " + reason.getMessage());
            } catch (LinkageError e) {
                // getKey still throws the reason.
            }
        }
    }

    /** Tools pass an empty password when their user gives none. */
    private static boolean isNone(char[] password) {
        return password == null || password.length == 0;
    }

    private static boolean isPinWrong(GeneralSecurityException e) {
        int number = e instanceof SigningException ? ((SigningException) e).number() : VCTKError.OK;
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
        return new IOException("The stream does not hold a store's URI, such as file:/path/keys.p12; the toolkit reads"
            + " the store itself from its file, not from a stream");
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
                throw new IOException("The callback handler gives no PIN: it does not know PasswordCallback", e);
            } finally {
                callback.clearPassword();
            }
        }
        throw new IOException("Cannot get a PIN from " + protection.getClass().getName()
            + "; use PasswordProtection or CallbackHandlerProtection");
    }

    private static String toAlias(String name) {
        return name.replace(":", "").toLowerCase(Locale.ROOT);
    }

    private Entry find(String alias) {
        return entries.get(toAlias(alias));
    }

    /** @throws UnrecoverableKeyException for a key that was passed over, with the reason as its cause */
    private Entry findUsable(String alias) throws UnrecoverableKeyException {
        GeneralSecurityException reason = passedOver.get(toAlias(alias));
        if (reason != null) {
            throw unrecoverable(reason);
        }
        return find(alias);
    }

    @Override
    public Key engineGetKey(String alias, char[] password) throws UnrecoverableKeyException {
        Entry entry = findUsable(alias);
        return entry == null ? null : entry.key;
    }

    @Override
    public Certificate[] engineGetCertificateChain(String alias) {
        Entry entry = find(alias);
        return entry == null ? null : entry.chain.clone();
    }

    @Override
    public Certificate engineGetCertificate(String alias) {
        Entry entry = find(alias);
        return entry == null ? null : entry.chain[0];
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
            if (entry.getValue().chain[0].equals(certificate)) {
                return entry.getKey();
            }
        }
        return null;
    }

    /** A key needs no password once its store is open. */
    @Override
    public KeyStore.Entry engineGetEntry(String alias, KeyStore.ProtectionParameter protection)
            throws UnrecoverableKeyException {
        Entry entry = findUsable(alias);
        return entry == null ? null : new KeyStore.PrivateKeyEntry(entry.key, entry.chain.clone());
    }

    @Override
    public void engineSetKeyEntry(String alias, Key key, char[] password, Certificate[] chain)
            throws KeyStoreException {
        throw new KeyStoreException(READ_ONLY);
    }

    @Override
    public void engineSetKeyEntry(String alias, byte[] key, Certificate[] chain) throws KeyStoreException {
        throw new KeyStoreException(READ_ONLY);
    }

    @Override
    public void engineSetCertificateEntry(String alias, Certificate certificate) throws KeyStoreException {
        throw new KeyStoreException(READ_ONLY);
    }

    @Override
    public void engineDeleteEntry(String alias) throws KeyStoreException {
        throw new KeyStoreException(READ_ONLY);
    }

    @Override
    public void engineStore(OutputStream stream, char[] password) {
        throw new UnsupportedOperationException(READ_ONLY);
    }
}
