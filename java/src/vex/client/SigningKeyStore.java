package vex.client;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.InvalidKeyException;
import java.security.Key;
import java.security.KeyStore;
import java.security.KeyStoreException;
import java.security.KeyStoreSpi;
import java.security.PrivateKey;
import java.security.UnrecoverableKeyException;
import java.security.cert.Certificate;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Collection;
import java.util.Collections;
import java.util.Date;
import java.util.Enumeration;
import java.util.Iterator;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.WeakHashMap;
import java.util.logging.Logger;
import java.util.regex.Pattern;
import javax.security.auth.callback.CallbackHandler;

/**
 * The certificates that the toolkit can sign with, as they were when the KeyStore was loaded. Keys that cannot be used
 * are passed over. After the end of its store, it still lists the certificates, but gives no keys.
 */
final class SigningKeyStore extends KeyStoreSpi {
    /** For a load that closes the KeyStore. */
    static final KeyStore.LoadStoreParameter CLOSE = () -> null;

    private static final int MAX_URI_BYTES = 1 << 16;
    private static final String READ_ONLY = "The toolkit's stores are read only";
    private static final String CLOSED = "The KeyStore is closed; load it again";
    /** The toolkit does not decode attribute names, so no percent-encoding can hide this one. */
    private static final Pattern MODULE_PATH = Pattern.compile("[?&;]module-path\\b", Pattern.CASE_INSENSITIVE);

    private final ProviderStores stores;
    /** Of each load, as long as something uses it. Guarded by itself. */
    private final Set<OpenStore> opened = Collections.newSetFromMap(new WeakHashMap<>());
    private volatile Content content = new Content(null);

    private static final class Entry {
        final String alias;
        final String fingerprint;
        /** The certificate of the key is the first. */
        final X509Certificate[] chain;

        Entry(String alias, String fingerprint, X509Certificate[] chain) {
            this.alias = alias;
            this.fingerprint = fingerprint;
            this.chain = chain;
        }
    }

    /** What one load has found. */
    private static final class Content {
        final OpenStore store;  // null: nothing is loaded
        final List<Entry> entries = new ArrayList<>();
        final Aliases<Entry> byAlias = new Aliases<>();
        final Aliases<GeneralSecurityException> passedOver = new Aliases<>();
        final Date loaded = new Date();

        Content(OpenStore store) {
            this.store = store;
        }
    }

    SigningKeyStore(ProviderStores stores) {
        this.stores = stores;
    }

    @Override
    public void engineLoad(InputStream stream, char[] password) throws IOException {
        String uri = stream == null ? null : readUri(stream);
        if (uri != null && MODULE_PATH.matcher(uri).find()) {
            throw new IOException("A store's URI in a stream must not have the attribute module-path, because it names"
                + " code to run; load a " + StoreParameter.class.getName() + " or give the URI to the provider");
        }
        load(uri, password, null);
    }

    @Override
    public void engineLoad(KeyStore.LoadStoreParameter parameter) throws IOException {
        if (parameter == CLOSE) {
            close();
            return;
        }
        if (parameter != null && SigningProvider.isForeign(parameter)) {
            throw new IOException("The KeyStore's provider and its parameter are" + SigningProvider.FOREIGN);
        }
        String uri = parameter instanceof StoreParameter ? ((StoreParameter) parameter).store() : null;
        KeyStore.ProtectionParameter protection = parameter == null ? null : parameter.getProtectionParameter();
        if (protection == null) {
            load(uri, null, null);
        } else if (protection instanceof KeyStore.PasswordProtection) {
            load(uri, ((KeyStore.PasswordProtection) protection).getPassword(), null);
        } else if (protection instanceof KeyStore.CallbackHandlerProtection) {
            load(uri, null, ((KeyStore.CallbackHandlerProtection) protection).getCallbackHandler());
        } else {
            throw new IOException("Cannot get a PIN from " + protection.getClass().getName()
                + "; use PasswordProtection or CallbackHandlerProtection");
        }
    }

    /**
     * @param uri null: the provider's store
     * @param pin null or empty: nobody gave one
     * @param handler asked for a PIN that nobody gave; null: the provider's
     */
    private void load(String uri, char[] pin, CallbackHandler handler) throws IOException {
        String store = uri == null ? stores.ownStore() : uri;
        if (store == null) {
            throw new IOException("No store is named; load a " + StoreParameter.class.getName() + " or a stream with"
                + " the store's URI, or give the URI to the provider");
        }
        try {
            OpenStore open = !Pin.isNone(pin) ? stores.open(store, pin)
                : handler != null ? stores.open(store, handler) : stores.open(store);
            synchronized (opened) {
                opened.add(open);
            }
            boolean read = false;
            try {
                content = read(open);
                read = true;
            } finally {
                if (!read) {
                    open.close(CLOSED);
                }
            }
        } catch (SigningException e) {
            throw failure("", e);
        } catch (IllegalArgumentException | IllegalStateException e) {
            throw new IOException(e.getMessage(), e);
        }
    }

    private static Content read(OpenStore store) throws IOException, SigningException {
        Content content = new Content(store);
        Map<CertificateInfo, X509Certificate[]> chains = new LinkedHashMap<>();
        Map<CertificateInfo, GeneralSecurityException> failed = new LinkedHashMap<>();
        Aliases<CertificateInfo> names = new Aliases<>();
        for (CertificateInfo info : store.certificates()) {
            try {
                X509Certificate[] chain = store.chain(info);
                SigningKey.of(store, info.fingerprint(), chain[0].getPublicKey());
                chains.put(info, chain);
                names.add(info, info);
            } catch (GeneralSecurityException e) {
                failed.put(info, e);
                content.passedOver.add(info, e);
            }
        }
        if (chains.isEmpty() && !failed.isEmpty()) {
            throw noneLoaded(failed.values());
        }
        chains.forEach((info, chain) -> {
            Entry entry = new Entry(names.aliasOf(info), info.fingerprint(), chain);
            content.entries.add(entry);
            content.byAlias.add(info, entry);
        });
        failed.forEach((info, e) -> PassedOverKeys.log(info.fingerprint(), e));
        return content;
    }

    /** Also ends the keys of earlier loads. */
    private void close() {
        List<OpenStore> ending;
        synchronized (opened) {
            ending = new ArrayList<>(opened);
            opened.clear();
        }
        for (OpenStore store : ending) {
            store.close(CLOSED);
        }
    }

    private static IOException noneLoaded(Collection<GeneralSecurityException> failed) {
        Iterator<GeneralSecurityException> reasons = failed.iterator();
        GeneralSecurityException first = reasons.next();
        IOException e = failure("None of the store's keys can be used: ", first);
        reasons.forEachRemaining(e::addSuppressed);
        return e;
    }

    /** A wrong PIN has the cause that KeyStore.load promises, so that callers can ask for the PIN again. */
    private static IOException failure(String what, GeneralSecurityException reason) {
        boolean pin = reason instanceof SigningException
            && (Pin.isWrong((SigningException) reason) || Pin.isMissing((SigningException) reason));
        return new IOException(what + reason.getMessage(), pin ? unrecoverable(reason) : reason);
    }

    private static UnrecoverableKeyException unrecoverable(Exception reason) {
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

    /** Null: there is no such entry. */
    private Entry find(String alias) {
        return content.byAlias.find(alias);
    }

    /** A new key for each caller, so that one can destroy it while others sign. Null: there is no such entry. */
    private static PrivateKey newKey(Content content, Entry entry, String alias) throws UnrecoverableKeyException {
        GeneralSecurityException reason = entry == null ? content.passedOver.find(alias) : null;
        if (reason != null) {
            throw unrecoverable(reason);
        }
        if (entry == null) {
            return null;
        }
        try {
            content.store.requireOpen();
            return SigningKey.of(content.store, entry.fingerprint, entry.chain[0].getPublicKey()).shown();
        } catch (InvalidKeyException | IllegalStateException e) {
            throw unrecoverable(e);
        }
    }

    /** A key needs no password once its store is open. */
    @Override
    public Key engineGetKey(String alias, char[] password) throws UnrecoverableKeyException {
        Content current = content;
        return newKey(current, current.byAlias.find(alias), alias);
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
        return find(alias) == null ? null : new Date(content.loaded.getTime());
    }

    @Override
    public Enumeration<String> engineAliases() {
        List<String> aliases = new ArrayList<>();
        for (Entry entry : content.entries) {
            aliases.add(entry.alias);
        }
        return Collections.enumeration(aliases);
    }

    @Override
    public boolean engineContainsAlias(String alias) {
        return find(alias) != null;
    }

    @Override
    public int engineSize() {
        return content.entries.size();
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
        for (Entry entry : content.entries) {
            if (entry.chain[0].equals(certificate)) {
                return entry.alias;
            }
        }
        return null;
    }

    @Override
    public KeyStore.Entry engineGetEntry(String alias, KeyStore.ProtectionParameter protection)
            throws UnrecoverableKeyException {
        Content current = content;
        Entry entry = current.byAlias.find(alias);
        PrivateKey key = newKey(current, entry, alias);
        return key == null ? null : new KeyStore.PrivateKeyEntry(key, entry.chain.clone());
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

    /** The base class would first ask for a password, which no key here has. */
    @Override
    public void engineSetEntry(String alias, KeyStore.Entry entry, KeyStore.ProtectionParameter protection)
            throws KeyStoreException {
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

    @Override
    public void engineStore(KeyStore.LoadStoreParameter parameter) {
        throw new UnsupportedOperationException(READ_ONLY);
    }
}
