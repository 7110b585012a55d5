package vex.client;

import java.io.IOException;
import java.io.NotSerializableException;
import java.io.ObjectOutputStream;
import java.security.AuthProvider;
import java.security.GeneralSecurityException;
import java.security.KeyStore;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
import java.security.SecurityPermission;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;
import java.util.function.Supplier;
import javax.security.auth.Subject;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.login.LoginException;

/**
 * Offers the toolkit's certificates and keys to programs that use {@code java.security}: a
 * {@link java.security.KeyStore} of the type {@value #KEY_STORE_TYPE}, and {@link java.security.Signature}s that sign
 * with its keys.
 *
 * <pre>{@code
 * Security.addProvider(new SigningProvider());
 * KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE);
 * store.load(StoreParameter.file(Paths.get("/etc/app/keys.p12"), Paths.get("/etc/app/pin")));
 * }</pre>
 *
 * <h2>KeyStore</h2>
 * It holds the certificates that could sign when it was loaded, and their keys. A chain begins with the key's
 * certificate and has those of its issuers, as far as the store, or {@link StoreParameter#withChain}, has them. Keys
 * have no encoded form and need no password. {@code load} opens the store with
 * <ul>
 * <li>a {@link StoreParameter};
 * <li>{@code (stream, pin)}: the stream holds the store's URI, not the store. A {@code null} or empty PIN means no PIN.
 *     A URI with the attribute {@code module-path} is refused here: it names code to run, and a stream may come from
 *     anywhere;
 * <li>{@code (null, pin)}, or another LoadStoreParameter: opens the provider's own store, whose URI it was created
 *     with.
 * </ul>
 *
 * <p><strong>Aliases.</strong> An alias is the entry's name in the store (the friendly name in a PKCS #12 file, the
 * label on a token) if no other entry has it, else the certificate's SHA-256 fingerprint as 64
 * upper-case hexadecimal digits. The fingerprint finds the entry always, in any case, with or without colons. A name
 * that several entries have finds the one that is valid longest, so a configured name goes on to work when a
 * certificate is renewed. Names are compared without regard to case. Names that are longer than 255 characters, have
 * control or invisible formatting characters, begin or end with a blank, or look like a fingerprint, are not used.
 *
 * <p><strong>Errors.</strong> {@code load} throws an {@link IOException} with the {@link SigningException} as its
 * cause. If the PIN is wrong or missing, the cause is an {@link java.security.UnrecoverableKeyException}, as
 * {@link KeyStore} promises, and its cause is the {@code SigningException}.
 *
 * <p><strong>Passed-over keys.</strong> Loading signs nothing: the toolkit lists the certificates. A key that cannot
 * sign says so when it is used. With a toolkit that does not list certificates, each key signs a fixed text to get its
 * certificate. A key is passed over if that fails or if Java cannot read the certificate. It then has no alias;
 * {@code getKey} and {@code getEntry} with its name or its certificate's fingerprint throw an
 * {@code UnrecoverableKeyException} with the reason as its cause. The reason is also logged as a warning
 * ({@code java.util.logging}, logger {@code vex.client.SigningKeyStore}). If all keys are passed over, {@code load}
 * throws an {@code IOException} with the first key's reason as its cause.
 *
 * <p><strong>The PIN.</strong> If a store needs a PIN and neither its URI nor {@code load} has one, the handler of
 * {@link #setCallbackHandler} is asked. For the provider's own store this is a {@link #login}: the handler is not asked
 * again before {@link #logout}, and loads see the store as it was at the login. A wrong PIN is tried once.
 *
 * <p><strong>Ending.</strong> {@link java.security.PrivateKey#destroy} ends a key object, {@link #close} a loaded
 * KeyStore, and {@link #logout} all KeyStores of a provider object. Then {@code Signature.initSign} throws an
 * {@link java.security.InvalidKeyException}, and {@code getKey} an {@code UnrecoverableKeyException}. Without these
 * calls, a store stays open while the KeyStore or one of its keys is reachable.
 *
 * <p><strong>Trust a store's URI only as you would trust a program.</strong> A {@code pkcs11:} URI can name a module,
 * whose code then runs in this process. Never take a URI from input.
 *
 * <h2>Signature</h2>
 * Only for signing, and only with this provider's keys:
 * <ul>
 * <li>{@code SHA256withRSA} (RSASSA-PKCS1-v1_5), {@code SHA256withRSAandMGF1} (RSASSA-PSS), {@code SHA256withECDSA}
 *     (DER) and {@code SHA256withECDSAinP1363Format}, and the same with the other SHA-2 and SHA-3 digests;
 * <li>{@code RSASSA-PSS} with a {@link java.security.spec.PSSParameterSpec}: the same digest in MGF1, a salt as long as
 *     it. Other parameters are refused. Keys whose certificate has parameters need none;
 * <li>{@code NONEwithRSA}, {@code NONEwithECDSA} and {@code NONEwithECDSAinP1363Format}, which sign the bytes given;
 * <li>{@code Ed25519}, {@code Ed448} and {@code EdDSA}.
 * </ul>
 * {@code update} digests the data. Only {@code Ed25519}, {@code Ed448} and toolkits that cannot sign a digest need the
 * data itself: it is then collected in memory, {@code update} refuses more than 402,653,181 bytes, and {@code sign}
 * refuses empty data. {@code Signature.getInstance} without a provider selects this provider for its keys, and another
 * one for other keys and for verifying.
 *
 * <p>These are bare signatures, which have no place for a time stamp. So keys of a store whose URI has the attribute
 * {@code tsa} do not sign: {@code sign} throws a {@link java.security.SignatureException}, whose cause is a
 * {@link SigningException} with the reason {@link SigningException.Reason#TIMESTAMP}. Programs that make CMS signatures
 * with a KeyStore add time stamps themselves.
 *
 * <p>Any thread may use a provider, a loaded KeyStore and a key. As many signatures with keys of one loaded KeyStore as
 * there are processors are made at once; further ones wait in the order of their arrival. If the toolkit cannot share
 * an opened store, they are made one after the other.
 */
public final class SigningProvider extends AuthProvider {
    /** The provider's name, for {@code getInstance(..., "VexClient")}. */
    public static final String NAME = "VexClient";

    /** The KeyStore's type. */
    public static final String KEY_STORE_TYPE = "VexClient";

    private static final long serialVersionUID = 1L;
    private static final double VERSION = 1.0;

    /** A digest, and the OIDs of its signature algorithms with RSA and with ECDSA; null: Java has no such algorithm. */
    private static final Object[][] DIGESTS = {
        {Digest.SHA_224, "1.2.840.113549.1.1.14", "1.2.840.10045.4.3.1"},
        {Digest.SHA_256, "1.2.840.113549.1.1.11", "1.2.840.10045.4.3.2"},
        {Digest.SHA_384, "1.2.840.113549.1.1.12", "1.2.840.10045.4.3.3"},
        {Digest.SHA_512, "1.2.840.113549.1.1.13", "1.2.840.10045.4.3.4"},
        {Digest.SHA_512_224, "1.2.840.113549.1.1.15", null},
        {Digest.SHA_512_256, "1.2.840.113549.1.1.16", null},
        {Digest.SHA3_224, "2.16.840.1.101.3.4.3.13", "2.16.840.1.101.3.4.3.9"},
        {Digest.SHA3_256, "2.16.840.1.101.3.4.3.14", "2.16.840.1.101.3.4.3.10"},
        {Digest.SHA3_384, "2.16.840.1.101.3.4.3.15", "2.16.840.1.101.3.4.3.11"},
        {Digest.SHA3_512, "2.16.840.1.101.3.4.3.16", "2.16.840.1.101.3.4.3.12"},
    };
    /** What is wrong with an object that {@link #isForeign}, and what to do. */
    static final String FOREIGN = " of another class loader, probably of another application in this JVM; give your own"
        + " provider object, not its name, to KeyStore.getInstance and Signature.getInstance";
    /** Behind the name of an ECDSA algorithm: the signature is r and s without DER. */
    private static final String P1363 = "inP1363Format";

    private final transient ProviderStores stores;

    /** Creates a provider whose KeyStores open the store that {@code load} names. */
    public SigningProvider() {
        this(null);
    }

    /**
     * Creates a provider with a store for programs that call {@code load(null, pin)}.
     *
     * @param store the store's URI as for {@link SigningClient#store}, to be trusted like a program; {@code null} for
     *     no store
     */
    public SigningProvider(String store) {
        super(NAME, VERSION, "Signs with the certificates of the signing toolkit");
        stores = new ProviderStores(store);
        putService(new KeyStoreService(this));
        for (Object[] row : DIGESTS) {
            offer((Digest) row[0], (String) row[1], (String) row[2]);
        }
        offer("RSASSA-PSS", "1.2.840.113549.1.1.10", () -> new SigningEngines.Pss(null));
        offer("NONEwithRSA", null, SigningEngines.RawRsa::new);
        offer("NONEwithECDSA", null, () -> new SigningEngines.Ecdsa(null, false));
        offer("NONEwithECDSA" + P1363, null, () -> new SigningEngines.Ecdsa(null, true));
        offer("EdDSA", null, () -> new SigningEngines.Edwards(null));
        offer("Ed25519", "1.3.101.112", () -> new SigningEngines.Edwards("Ed25519"));
        offer("Ed448", "1.3.101.113", () -> new SigningEngines.Edwards("Ed448"));
    }

    private void offer(Digest digest, String rsaOid, String ecdsaOid) {
        String name = digest.inSignatures();
        offer(name + "withRSA", rsaOid, () -> new SigningEngines.Rsa(digest));
        offer(name + "withRSAandMGF1", null, () -> new SigningEngines.Pss(digest));
        if (ecdsaOid != null) {
            offer(name + "withECDSA", ecdsaOid, () -> new SigningEngines.Ecdsa(digest, false));
            offer(name + "withECDSA" + P1363, null, () -> new SigningEngines.Ecdsa(digest, true));
        }
    }

    private void offer(String algorithm, String oid, Supplier<SigningEngine> engine) {
        putService(new SignatureService(this, algorithm, oid, engine));
    }

    /**
     * Creates a provider with a store. From Java 9 on, {@code keytool}, {@code jarsigner} and {@code java.security}
     * call this with the provider's argument.
     *
     * @param store as for {@link #SigningProvider(String)}, but not {@code null}: {@link Provider} says so
     * @return the new provider
     */
    public Provider configure(String store) {
        return new SigningProvider(Objects.requireNonNull(store, "store"));
    }

    /**
     * Opens the provider's own store and keeps it open until {@link #logout}. {@code KeyStore.load(null, null)} then
     * needs no PIN. Does nothing while logged in. The first load that asks for a PIN of the provider's own store logs
     * in as well.
     *
     * @param subject not used
     * @param handler asked for the PIN with a {@link javax.security.auth.callback.PasswordCallback}, once, if the store
     *     needs a PIN that its URI does not have; {@code null} for the one of {@link #setCallbackHandler}
     * @throws javax.security.auth.login.FailedLoginException if the PIN is wrong or missing
     * @throws LoginException if the provider has no store of its own, or the store cannot be opened. The cause is the
     *     {@link SigningException}
     */
    @Override
    public void login(Subject subject, CallbackHandler handler) throws LoginException {
        checkPermission();
        stores.login(handler);
    }

    /**
     * Closes all stores that KeyStores of this provider object have opened, and ends the login, so that the process
     * logs out of the tokens that nothing else uses. Signatures in progress are completed. Then the keys do not sign
     * any more, also after another login: load the KeyStores again.
     */
    @Override
    public void logout() {
        checkPermission();
        stores.logout();
    }

    /**
     * Sets who is asked when a store needs a PIN and none was given.
     *
     * @param handler {@code null} for the one that the security property {@code auth.login.defaultCallbackHandler}
     *     names, if it names one
     */
    @Override
    public void setCallbackHandler(CallbackHandler handler) {
        checkPermission();
        stores.setHandler(handler);
    }

    /** As AuthProvider demands. Without a security manager there is nothing to check. */
    private static void checkPermission() {
        SecurityManager manager = System.getSecurityManager();
        if (manager != null) {
            manager.checkPermission(new SecurityPermission("authProvider." + NAME));
        }
    }

    /**
     * Closes what a KeyStore has opened. Signatures in progress are completed. Then its keys do not sign any more. It
     * still lists its certificates, and it may be loaded again. A login of the provider is not ended.
     *
     * @param keyStore of the type {@value #KEY_STORE_TYPE}; may be closed already
     * @throws IllegalArgumentException if the KeyStore is of another provider
     */
    public static void close(KeyStore keyStore) {
        Objects.requireNonNull(keyStore, "keyStore");
        Provider provider = keyStore.getProvider();
        if (!(provider instanceof SigningProvider)) {
            throw new IllegalArgumentException("The keyStore is of the provider " + provider.getName()
                + (isForeign(provider) ? FOREIGN : ", not of " + NAME));
        }
        try {
            keyStore.load(SigningKeyStore.CLOSE);
        } catch (IOException | GeneralSecurityException e) {
            throw new IllegalStateException("The KeyStore cannot be closed", e);
        }
    }

    /** A provider is equal only to itself: the base class compares the services, and not the stores. */
    @Override
    public boolean equals(Object other) {
        return this == other;
    }

    @Override
    public int hashCode() {
        return System.identityHashCode(this);
    }

    /**
     * Refuses to be serialized: the stores cannot be, and without them it would be no provider.
     *
     * @param out not written to
     * @throws NotSerializableException always
     */
    private void writeObject(ObjectOutputStream out) throws NotSerializableException {
        throw new NotSerializableException(getClass().getName());
    }

    /** Whether the object is of a class of this package that another class loader has loaded. */
    static boolean isForeign(Object object) {
        Class<?> type = object.getClass();
        return (type.getName().equals(SigningProvider.class.getName())
            || type.getName().equals(StoreParameter.class.getName()))
            && type.getClassLoader() != SigningProvider.class.getClassLoader();
    }

    private static final class KeyStoreService extends Service {
        private final ProviderStores stores;

        KeyStoreService(SigningProvider provider) {
            super(provider, "KeyStore", KEY_STORE_TYPE, SigningKeyStore.class.getName(), null, null);
            stores = provider.stores;
        }

        @Override
        public Object newInstance(Object parameter) {
            return new SigningKeyStore(stores);
        }
    }

    private static final class SignatureService extends Service {
        private final Supplier<SigningEngine> engine;

        SignatureService(Provider provider, String algorithm, String oid, Supplier<SigningEngine> engine) {
            super(provider, "Signature", algorithm, SigningEngine.class.getName(), aliases(oid), null);
            this.engine = engine;
        }

        private static List<String> aliases(String oid) {
            return oid == null ? null : new ArrayList<>(Arrays.asList(oid, "OID." + oid));
        }

        @Override
        public Object newInstance(Object parameter) throws NoSuchAlgorithmException {
            if (parameter != null) {
                throw new NoSuchAlgorithmException(getAlgorithm() + " takes no parameter");
            }
            return engine.get();
        }

        /** Lets a Signature without a named provider select this provider for its own keys, and for no others. */
        @Override
        public boolean supportsParameter(Object parameter) {
            SigningKey key = SigningKey.from(parameter);
            return key != null && engine.get().fits(key);
        }
    }
}
