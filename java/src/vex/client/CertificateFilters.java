package vex.client;

import java.math.BigInteger;
import java.security.cert.CertificateEncodingException;
import java.security.cert.X509Certificate;
import java.time.Instant;
import java.util.ArrayList;
import java.util.List;
import java.util.Objects;
import javax.security.auth.x500.X500Principal;

/**
 * Conditions on the certificate that signs, as settings of a {@link SigningClient.Builder}. A certificate has to pass
 * all of them.
 *
 * @param <B> the class that has the settings, which each method returns
 */
public abstract class CertificateFilters<B extends CertificateFilters<B>> {
    private final List<Filter> filters = new ArrayList<>();

    CertificateFilters() {}

    abstract B self();

    final Selection selection() {
        return Selection.of(filters);
    }

    /**
     * Filter: the RFC 4514 text of the issuer's name contains this part.
     *
     * @param part in upper or lower case
     * @return this
     */
    public final B issuerContains(String part) {
        return add(Filter.issuerContains(Objects.requireNonNull(part, "part")));
    }

    /**
     * Filter: the RFC 4514 text of the subject's name contains this part.
     *
     * @param part in upper or lower case
     * @return this
     */
    public final B subjectContains(String part) {
        return add(Filter.subjectContains(Objects.requireNonNull(part, "part")));
    }

    /**
     * Filter: the issuer has this name.
     *
     * @param name the whole name
     * @return this
     */
    public final B issuer(X500Principal name) {
        return add(Filter.issuer(Objects.requireNonNull(name, "name")));
    }

    /**
     * Filter: the subject has this name.
     *
     * @param name the whole name
     * @return this
     */
    public final B subject(X500Principal name) {
        return add(Filter.subject(Objects.requireNonNull(name, "name")));
    }

    /**
     * Filter: the certificate has this serial number.
     *
     * @param number the number as {@link CertificateInfo#serial} returns it; a few certificates have a negative one
     * @return this
     */
    public final B serial(BigInteger number) {
        return add(Filter.serial(Objects.requireNonNull(number, "number")));
    }

    /**
     * Filter: the certificate has this fingerprint.
     *
     * @param sha256 in a form that the {@linkplain vex.client package} describes
     * @return this
     */
    public final B fingerprint(String sha256) {
        return add(Filter.fingerprint(Objects.requireNonNull(sha256, "sha256")));
    }

    /**
     * Filter: this certificate alone.
     *
     * @param certificate compared by its SHA-256 fingerprint
     * @return this
     * @throws IllegalArgumentException if the certificate has no DER form, as one that was not read from DER may
     */
    public final B certificate(X509Certificate certificate) {
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
    public final B keyAlgorithm(KeyAlgorithm algorithm) {
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
    public final B keyAlgorithm(String name) {
        return add(Filter.keyAlgorithm(Objects.requireNonNull(name, "name")));
    }

    /**
     * Filter: the key has this size or a larger one.
     *
     * @param bits the size of the RSA modulus or of the curve's field; positive
     * @return this
     */
    public final B keySizeAtLeast(int bits) {
        return add(Filter.keySizeAtLeast(bits));
    }

    /**
     * Filter: the certificate allows this key usage. A certificate without key usages allows all.
     *
     * @param usage the usage
     * @return this
     */
    public final B allowsKeyUsage(KeyUsage usage) {
        return add(Filter.allowsKeyUsage(Objects.requireNonNull(usage, "usage")));
    }

    /**
     * Filter: the certificate names all of these key usages. A certificate without key usages does not pass.
     *
     * @param usages at least one
     * @return this
     */
    public final B keyUsages(KeyUsage... usages) {
        return add(Filter.keyUsages(Arguments.requireElements(usages, "usages")));
    }

    /**
     * Filter: the certificate names all of these extended key usages.
     *
     * @param usages at least one; dotted OIDs, or the short names {@code serverAuth}, {@code clientAuth},
     *     {@code codeSigning}, {@code emailProtection}, {@code timeStamping} and {@code OCSPSigning}
     * @return this
     */
    public final B extendedKeyUsages(String... usages) {
        return add(Filter.extendedKeyUsages(Arguments.requireElements(usages, "usages")));
    }

    /**
     * Filter: the certificate is valid at this time as well as now.
     *
     * @param time the time; fractions of a second are ignored
     * @return this
     */
    public final B validAt(Instant time) {
        return add(Filter.validAt(Objects.requireNonNull(time, "time")));
    }

    /**
     * Filter: the certificate has this policy.
     *
     * @param oid a dotted OID
     * @return this
     */
    public final B policy(String oid) {
        return add(Filter.policy(Objects.requireNonNull(oid, "oid")));
    }

    private B add(Filter filter) {
        filters.add(filter);
        return self();
    }
}
