package vex.client;

import java.security.cert.X509Certificate;
import java.security.spec.AlgorithmParameterSpec;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Optional;

/** A signature, and who made it. Any thread may use it. */
public final class SigningResult {
    private final byte[] signature;
    private final List<X509Certificate> chain;
    private final SignatureAlgorithm algorithm;

    SigningResult(byte[] signature, X509Certificate[] chain, SignatureAlgorithm algorithm) {
        this.signature = signature;
        this.chain = Collections.unmodifiableList(Arrays.asList(chain.clone()));
        this.algorithm = algorithm;
    }

    /**
     * Returns the signature.
     *
     * @return a bare signature, or CMS SignedData in DER; always the same array, which belongs to the caller
     */
    public byte[] signature() {
        return signature;
    }

    /**
     * Returns the certificate whose key made the signature.
     *
     * @return the first one of the {@link #chain}
     */
    public X509Certificate certificate() {
        return chain.get(0);
    }

    /**
     * Returns the certificate and those of its issuers, as {@link CmsOption#INCLUDE_CHAIN} would include them.
     *
     * @return an immutable list: first the signer's certificate, then its issuer's and so on, as far as they are known,
     *     without the root
     */
    public List<X509Certificate> chain() {
        return chain;
    }

    /**
     * Returns the algorithm of the signature; of a CMS signature, the one in its SignerInfo.
     *
     * @return the name with which {@link java.security.Signature} verifies it, for example {@code SHA256withRSA},
     *     {@code RSASSA-PSS}, {@code SHA256withECDSA} or {@code Ed25519}. If this class does not know the algorithm of
     *     a CMS signature, its OID
     */
    public String algorithm() {
        return algorithm.name();
    }

    /**
     * Returns what {@link java.security.Signature#setParameter(AlgorithmParameterSpec)} needs before it verifies.
     *
     * @return a {@link java.security.spec.PSSParameterSpec} for {@code RSASSA-PSS}, empty for other algorithms
     */
    public Optional<AlgorithmParameterSpec> algorithmParameters() {
        return algorithm.parameters();
    }

    /** For people; the form may change. */
    @Override
    public String toString() {
        return algorithm.name() + " signature by " + certificate().getSubjectX500Principal();
    }
}
