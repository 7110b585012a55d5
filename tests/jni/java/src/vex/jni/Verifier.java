package vex.jni;

import java.security.cert.X509Certificate;
import java.util.List;
import java.util.Optional;

/** Somebody who trusts one root, and who did not make the signatures. One thread at a time. */
interface Verifier {
    /**
     * What a verifier knows besides the signature.
     *
     * @param root the only certificate that is trusted
     * @param given certificates that are known and not trusted
     */
    record Knowledge(X509Certificate root, List<X509Certificate> given) {}

    /**
     * A verifier's answer.
     *
     * @param content the bytes that it found signed; empty if it refuses the signature
     * @param reason why it refuses; empty if it does not
     */
    record Answer(Optional<byte[]> content, String reason) {
        static Answer accepts(byte[] content) {
            return new Answer(Optional.of(content), "");
        }

        static Answer refuses(String reason) {
            return new Answer(Optional.empty(), reason);
        }

        boolean isAccepted() {
            return content.isPresent();
        }
    }

    String name();

    /** Whether the certificate that is given first leads to the root, by way of the others. */
    Answer onPath(Knowledge knowledge) throws Exception;

    /** A bare signature by the key of the certificate that is given first. The path is not looked at. */
    Answer onP1(byte[] signature, byte[] content, Scheme scheme, Knowledge knowledge) throws Exception;

    /**
     * A CMS signature of one signer, with the path from the signer's certificate to the root.
     *
     * @param content the content of a detached signature; null for an attached one
     */
    Answer onP7(byte[] der, byte[] content, Scheme scheme, Knowledge knowledge) throws Exception;
}
