package vex.client;

import java.nio.file.Path;
import java.security.KeyStore;
import java.util.Objects;

/** Names the store that a {@link KeyStore} of {@link SigningProvider} opens. Immutable; any thread may use it. */
public final class StoreParameter implements KeyStore.LoadStoreParameter {
    private final String store;
    private final KeyStore.ProtectionParameter protection;

    private StoreParameter(String store, KeyStore.ProtectionParameter protection) {
        this.store = store;
        this.protection = protection;
    }

    /**
     * A store by its URI.
     *
     * @param uri as for {@link SigningClient#store}. Trust it only as you would trust a program: it can name a PKCS #11
     *     module, whose code then runs in this process
     * @param protection the PIN, as {@link KeyStore.PasswordProtection} or {@link KeyStore.CallbackHandlerProtection},
     *     whose handler is asked only if a PIN is needed; {@code null} if there is no PIN, the URI says where it is, or
     *     the callback handler of the provider is to be asked
     * @return the parameter
     */
    public static StoreParameter store(String uri, KeyStore.ProtectionParameter protection) {
        return new StoreParameter(Objects.requireNonNull(uri, "uri"), protection);
    }

    /**
     * A store in a PKCS #12 or PEM file without a PIN. If it needs one, the callback handler of the provider is asked.
     *
     * @param file as for {@link SigningClient#file}
     * @return the parameter
     */
    public static StoreParameter file(Path file) {
        return new StoreParameter(ofFile(file), null);
    }

    /**
     * A store in a PKCS #12 or PEM file, with its PIN.
     *
     * @param file as for {@link SigningClient#file}
     * @param protection as for {@link #store}
     * @return the parameter
     */
    public static StoreParameter file(Path file, KeyStore.ProtectionParameter protection) {
        return new StoreParameter(ofFile(file), protection);
    }

    /**
     * A store in a PKCS #12 or PEM file, with the PIN in a file.
     *
     * @param file as for {@link SigningClient#file}
     * @param pinFile as for {@link SigningClient.Builder#pinFile}
     * @return the parameter
     */
    public static StoreParameter file(Path file, Path pinFile) {
        String store = ofFile(file);
        return new StoreParameter(StoreText.withPinFile(store, Objects.requireNonNull(pinFile, "pinFile")), null);
    }

    /**
     * The same store, whose chains also have the certificates of a file.
     *
     * @param file PEM or PKCS #12 with the certificates of issuers that the store does not have, such as a card with
     *     only the signer's certificate; at most 16 MiB
     * @return a new parameter
     * @throws IllegalStateException if the store has such a file already, by its URI or an earlier call
     */
    public StoreParameter withChain(Path file) {
        if (StoreText.hasChainFile(store)) {
            throw new IllegalStateException("The store " + StoreText.ONE_CHAIN_FILE);
        }
        String chain = StoreText.hasChain(store) ? store : StoreText.withAttribute(store, "chain=root");
        return new StoreParameter(StoreText.withChainFile(chain, Objects.requireNonNull(file, "file")), protection);
    }

    private static String ofFile(Path file) {
        return StoreText.ofFile(Objects.requireNonNull(file, "file"));
    }

    /** {@code null} if there is no PIN, the URI says where it is, or the provider's callback handler knows it. */
    @Override
    public KeyStore.ProtectionParameter getProtectionParameter() {
        return protection;
    }

    String store() {
        return store;
    }
}
