package vex.client;

import java.math.BigInteger;
import java.nio.file.Path;
import java.security.cert.CertificateEncodingException;
import java.security.cert.X509Certificate;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;
import javax.security.auth.x500.X500Principal;

/**
 * Collects the settings of a client, in any order. A certificate has to pass all filters. If several certificates pass,
 * the one that stays valid longest signs. For one thread at a time.
 */
public final class SigningClientBuilder {
    private final String store;
    private final List<Filter> filters = new ArrayList<>();
    private Path pinFile;
    private Path chainFile;
    private char[] pin;
    private String digest;  // null: the toolkit's default
    private boolean pss;
    private boolean single;

    SigningClientBuilder(String store) {
        this.store = store;
    }

    /**
     * Names the file that holds the PIN. This is the safest way: the PIN never becomes a Java object.
     *
     * @param file at most 4 KiB; one line end after the PIN is not part of it
     * @return this
     * @throws IllegalArgumentException if the path belongs to another file system than the default one
     */
    public SigningClientBuilder pinFile(Path file) {
        pinFile = StoreText.requireDefaultFileSystem(Objects.requireNonNull(file, "file"));
        pin = null;
        return this;
    }

    /**
     * Sets the PIN itself. The builder copies it, and {@link #open} joins the copy to the store's URI and wipes it.
     * No exception and no {@link #toString} contains it. The caller wipes its own array.
     *
     * @param characters the PIN, without any escapes
     * @return this
     */
    public SigningClientBuilder pin(char[] characters) {
        pin = Objects.requireNonNull(characters, "characters").clone();
        pinFile = null;
        return this;
    }

    /**
     * Names a file with certificates of issuers that the store does not have, for {@link CmsOption#INCLUDE_CHAIN}.
     *
     * @param file PEM or PKCS #12, at most 16 MiB
     * @return this
     * @throws IllegalArgumentException if the path belongs to another file system than the default one
     */
    public SigningClientBuilder chainFile(Path file) {
        chainFile = StoreText.requireDefaultFileSystem(Objects.requireNonNull(file, "file"));
        return this;
    }

    /**
     * Sets the digest algorithm. Ed25519 and Ed448 keys have their own.
     *
     * @param algorithm SHA-256 if this method is not called
     * @return this
     */
    public SigningClientBuilder digest(Digest algorithm) {
        return digest(Objects.requireNonNull(algorithm, "algorithm").toString());
    }

    /**
     * Sets the digest algorithm by the toolkit's name, which may be one that {@link Digest} does not have.
     *
     * @param name for example {@code SHA-384}
     * @return this
     * @throws IllegalArgumentException if the name begins with {@code prehashed:}; {@link SigningClient#signDigest}
     *     does this
     */
    public SigningClientBuilder digest(String name) {
        Objects.requireNonNull(name, "name");
        if (name.regionMatches(true, 0, Digest.PREHASHED, 0, Digest.PREHASHED.length())) {
            throw new IllegalArgumentException("The client signs data; call signDigest to sign a digest");
        }
        digest = name;
        return this;
    }

    /**
     * Makes RSA keys sign with RSASSA-PSS: with the client's digest algorithm, the same in MGF1, and a salt as long as
     * the digest. Without this call, only keys whose certificate demands it do so. Other keys sign as always.
     *
     * @return this
     */
    public SigningClientBuilder pss() {
        pss = true;
        return this;
    }

    /**
     * Makes signing fail unless exactly one certificate passes the filters.
     *
     * @return this
     */
    public SigningClientBuilder singleCertificate() {
        single = true;
        return this;
    }

    /**
     * Filter: the RFC 4514 text of the issuer's name contains this part.
     *
     * @param part in upper or lower case
     * @return this
     */
    public SigningClientBuilder issuerContains(String part) {
        return add(Filter.issuerContains(Objects.requireNonNull(part, "part")));
    }

    /**
     * Filter: the RFC 4514 text of the subject's name contains this part.
     *
     * @param part in upper or lower case
     * @return this
     */
    public SigningClientBuilder subjectContains(String part) {
        return add(Filter.subjectContains(Objects.requireNonNull(part, "part")));
    }

    /**
     * Filter: the issuer has this name.
     *
     * @param name the whole name
     * @return this
     */
    public SigningClientBuilder issuer(X500Principal name) {
        return add(Filter.issuer(Objects.requireNonNull(name, "name")));
    }

    /**
     * Filter: the subject has this name.
     *
     * @param name the whole name
     * @return this
     */
    public SigningClientBuilder subject(X500Principal name) {
        return add(Filter.subject(Objects.requireNonNull(name, "name")));
    }

    /**
     * Filter: the certificate has this serial number.
     *
     * @param number the number as {@link CertificateInfo#serial} returns it; a few certificates have a negative one
     * @return this
     */
    public SigningClientBuilder serial(BigInteger number) {
        return add(Filter.serial(Objects.requireNonNull(number, "number")));
    }

    /**
     * Filter: the certificate has this fingerprint.
     *
     * @param sha256 in a form that the {@linkplain vex.client package} describes
     * @return this
     */
    public SigningClientBuilder fingerprint(String sha256) {
        return add(Filter.fingerprint(Objects.requireNonNull(sha256, "sha256")));
    }

    /**
     * Filter: this certificate alone.
     *
     * @param certificate compared by its SHA-256 fingerprint
     * @return this
     * @throws IllegalArgumentException if the certificate has no DER form, as one that was not read from DER may
     */
    public SigningClientBuilder certificate(X509Certificate certificate) {
        try {
            return fingerprint(Certificates.fingerprint(Objects.requireNonNull(certificate, "certificate")));
        } catch (CertificateEncodingException e) {
            throw new IllegalArgumentException("The certificate has no DER form: " + e.getMessage(), e);
        }
    }

    /**
     * Filter: the key has this algorithm.
     *
     * @param algorithm not {@link KeyAlgorithm#OTHER}
     * @return this
     * @throws IllegalArgumentException if it is {@code OTHER}
     */
    public SigningClientBuilder keyAlgorithm(KeyAlgorithm algorithm) {
        if (Objects.requireNonNull(algorithm, "algorithm") == KeyAlgorithm.OTHER) {
            throw new IllegalArgumentException("KeyAlgorithm.OTHER names no algorithm; give the toolkit's name");
        }
        return keyAlgorithm(algorithm.toString());
    }

    /**
     * Filter: the key has this algorithm, which may be one that {@link KeyAlgorithm} does not have.
     *
     * @param name as {@link CertificateInfo#keyAlgorithmName} returns it
     * @return this
     */
    public SigningClientBuilder keyAlgorithm(String name) {
        return add(Filter.keyAlgorithm(Objects.requireNonNull(name, "name")));
    }

    /**
     * Filter: the key has this size or a larger one.
     *
     * @param bits the size of the RSA modulus or of the curve's field; positive
     * @return this
     */
    public SigningClientBuilder keySizeAtLeast(int bits) {
        return add(Filter.keySizeAtLeast(bits));
    }

    /**
     * Filter: the certificate allows this key usage. A certificate without key usages allows all.
     *
     * @param usage the usage
     * @return this
     */
    public SigningClientBuilder allowsKeyUsage(KeyUsage usage) {
        return add(Filter.allowsKeyUsage(Objects.requireNonNull(usage, "usage")));
    }

    /**
     * Filter: the certificate names all of these key usages. A certificate without key usages does not pass.
     *
     * @param usages at least one
     * @return this
     */
    public SigningClientBuilder keyUsages(KeyUsage... usages) {
        return add(Filter.keyUsages(Arguments.requireElements(usages, "usages")));
    }

    /**
     * Filter: the certificate names all of these extended key usages.
     *
     * @param usages at least one; dotted OIDs, or the short names {@code serverAuth}, {@code clientAuth},
     *     {@code codeSigning}, {@code emailProtection}, {@code timeStamping} and {@code OCSPSigning}
     * @return this
     */
    public SigningClientBuilder extendedKeyUsages(String... usages) {
        return add(Filter.extendedKeyUsages(Arguments.requireElements(usages, "usages")));
    }

    /**
     * Filter: the certificate is valid at this time as well as now.
     *
     * @param time the time; fractions of a second are ignored
     * @return this
     */
    public SigningClientBuilder validAt(Instant time) {
        return add(Filter.validAt(Objects.requireNonNull(time, "time")));
    }

    /**
     * Filter: the certificate has this policy.
     *
     * @param oid a dotted OID
     * @return this
     */
    public SigningClientBuilder policy(String oid) {
        return add(Filter.policy(Objects.requireNonNull(oid, "oid")));
    }

    /**
     * Opens the store. The first call in a process loads the native library; see {@link vex.jni.TAVClientJNI}.
     *
     * @return a new client, which the caller closes
     * @throws SigningException if the store cannot be opened or a setting is refused. If no certificate passes the
     *     filters, opening succeeds and signing fails
     * @throws IllegalStateException if {@link #pin} was called and an earlier call of this method used the PIN
     */
    public SigningClient open() throws SigningException {
        Session session = Session.open(storeWithPin(), single, "chain=store");
        try {
            String digest = digestName();
            Selection selection = Selection.of(filters);
            session.check(selection, digest);
            return new SigningClient(session, selection, single, digest);
        } catch (SigningException | RuntimeException | Error e) {
            session.close();
            throw e;
        }
    }

    /** For people. Contains no PIN and no URI. */
    @Override
    public String toString() {
        return "SigningClientBuilder with " + filters.size() + " filters";
    }

    private SigningClientBuilder add(Filter filter) {
        filters.add(filter);
        return this;
    }

    /** As the toolkit takes it; null for its default. */
    private String digestName() {
        if (!pss) {
            return digest;
        }
        String name = digest == null ? Digest.SHA_256.toString() : digest;
        return Digest.isPss(name) ? name : name + Digest.PSS;
    }

    private String storeWithChain() {
        if (chainFile == null) {
            return store;
        }
        String chain = StoreText.hasChain(store) ? store : StoreText.withAttribute(store, "chain=store");
        return StoreText.withChainFile(chain, chainFile);
    }

    private String storeWithPin() {
        String store = storeWithChain();
        if (pinFile != null) {
            return StoreText.withPinFile(store, pinFile);
        }
        if (pin == null) {
            return store;
        }
        if (pin.length > 0 && pin[0] == WIPED) {
            throw new IllegalStateException("An earlier call of open used the PIN and wiped it; call pin again");
        }
        try {
            return StoreText.withPin(store, pin);
        } finally {
            Arrays.fill(pin, WIPED);
        }
    }

    /** A PIN cannot contain this character. */
    private static final char WIPED = '\0';
}
