package vex.client;

import java.security.Key;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

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
 * It holds the certificates that could sign when it was loaded, and their keys. An alias is a certificate's SHA-256
 * fingerprint in lower-case hexadecimal. A chain begins with the key's certificate and has those of its issuers, as far
 * as the store, or {@link StoreParameter#withChain}, has them. Keys have no encoded form and need no password.
 * The store stays open while the KeyStore or one of its keys is reachable. {@code load} opens it with
 * <ul>
 * <li>a {@link StoreParameter};
 * <li>{@code (stream, pin)}: the stream holds the store's URI, not the store. A {@code null} or empty PIN means no PIN.
 *     A URI with the attribute {@code module-path} is refused here: it names code to run, and a stream may come from
 *     anywhere;
 * <li>{@code (null, pin)}, or another LoadStoreParameter: opens the store that was given to the provider.
 * </ul>
 * To get each certificate, loading signs a fixed text with its key and throws the signature away. A key is passed
 * over if this fails or if Java cannot read the certificate. It then has no alias; {@code getKey} and {@code getEntry}
 * with its certificate's fingerprint throw an {@link java.security.UnrecoverableKeyException} with the reason as its
 * cause. The reason is also logged as a warning ({@code java.util.logging}, logger
 * {@code vex.client.SigningKeyStore}). If all keys are passed over, {@code load} throws an
 * {@link java.io.IOException} with the first key's reason as its cause. If the PIN is wrong or missing, the cause is an
 * {@code UnrecoverableKeyException}, whose cause is the {@link SigningException}.
 *
 * <p><strong>Trust a store's URI only as you would trust a program.</strong> A {@code pkcs11:} URI can name a module,
 * whose code then runs in this process. Never take a URI from input.
 *
 * <h2>Signature</h2>
 * SHA-2 and SHA-3 {@code withRSA} (RSASSA-PKCS1-v1_5) and {@code withECDSA} (DER), only for signing and only with this
 * provider's keys. They collect the data in memory and refuse empty data. {@code Signature.getInstance} without a
 * provider selects this provider for its keys, and another one for other keys and for verifying.
 *
 * <p>Any thread may use a provider, a loaded KeyStore and a key. Signatures with keys of one loaded KeyStore are made
 * one after the other, so threads that sign a lot are faster with a KeyStore each.
 */
public final class SigningProvider extends Provider {
    /** The provider's name, for {@code getInstance(..., "VexClient")}. */
    public static final String NAME = "VexClient";

    /** The KeyStore's type. */
    public static final String KEY_STORE_TYPE = "VexClient";

    private static final long serialVersionUID = 1L;
    private static final double VERSION = 1.0;

    /** A digest, and the OIDs of its signature algorithms with RSA and with ECDSA. */
    private static final String[][] DIGESTS = {
        {"SHA224", "1.2.840.113549.1.1.14", "1.2.840.10045.4.3.1"},
        {"SHA256", "1.2.840.113549.1.1.11", "1.2.840.10045.4.3.2"},
        {"SHA384", "1.2.840.113549.1.1.12", "1.2.840.10045.4.3.3"},
        {"SHA512", "1.2.840.113549.1.1.13", "1.2.840.10045.4.3.4"},
        {"SHA3-224", "2.16.840.1.101.3.4.3.13", "2.16.840.1.101.3.4.3.9"},
        {"SHA3-256", "2.16.840.1.101.3.4.3.14", "2.16.840.1.101.3.4.3.10"},
        {"SHA3-384", "2.16.840.1.101.3.4.3.15", "2.16.840.1.101.3.4.3.11"},
        {"SHA3-512", "2.16.840.1.101.3.4.3.16", "2.16.840.1.101.3.4.3.12"},
    };

    private final transient String defaultStore;

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
        defaultStore = store;
        putService(new KeyStoreService(this));
        for (String[] digest : DIGESTS) {
            putService(new SignatureService(this, digest[0], "RSA", digest[0] + "withRSA", digest[1]));
            putService(new SignatureService(this, digest[0], "EC", digest[0] + "withECDSA", digest[2]));
        }
    }

    /**
     * Creates a provider with a store. From Java 9 on, {@code keytool}, {@code jarsigner} and {@code java.security}
     * call this with the provider's argument.
     *
     * @param store as for {@link #SigningProvider(String)}
     * @return the new provider
     */
    public Provider configure(String store) {
        return new SigningProvider(store);
    }

    private static final class KeyStoreService extends Service {
        private final String defaultStore;

        KeyStoreService(SigningProvider provider) {
            super(provider, "KeyStore", KEY_STORE_TYPE, SigningKeyStore.class.getName(), null, null);
            defaultStore = provider.defaultStore;
        }

        @Override
        public Object newInstance(Object parameter) {
            return new SigningKeyStore(defaultStore);
        }
    }

    private static final class SignatureService extends Service {
        private final String digest;
        private final String keyAlgorithm;

        SignatureService(Provider provider, String digest, String keyAlgorithm, String algorithm, String oid) {
            super(provider, "Signature", algorithm, SigningEngine.class.getName(), aliases(oid), null);
            this.digest = digest;
            this.keyAlgorithm = keyAlgorithm;
        }

        private static List<String> aliases(String oid) {
            return new ArrayList<>(Arrays.asList(oid, "OID." + oid));
        }

        @Override
        public Object newInstance(Object parameter) throws NoSuchAlgorithmException {
            if (parameter != null) {
                throw new NoSuchAlgorithmException(getAlgorithm() + " takes no parameter");
            }
            return new SigningEngine(keyAlgorithm, digest);
        }

        /** Lets a Signature without a named provider select this provider for its own keys, and for no others. */
        @Override
        public boolean supportsParameter(Object parameter) {
            return parameter instanceof SigningKey && ((Key) parameter).getAlgorithm().equals(keyAlgorithm);
        }
    }
}
