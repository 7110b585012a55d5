package vex.client;

import java.security.AlgorithmParameters;
import java.security.InvalidAlgorithmParameterException;
import java.security.InvalidKeyException;
import java.security.interfaces.RSAKey;
import java.security.spec.AlgorithmParameterSpec;

/** The signature algorithms that the provider offers. */
final class SigningEngines {
    private SigningEngines() {}

    /** RSASSA-PKCS1-v1_5 of a digest. */
    static final class Rsa extends SigningEngine {
        private final Digest digest;

        Rsa(Digest digest) {
            this.digest = digest;
        }

        @Override
        boolean fits(SigningKey candidate) {
            return candidate.isFor(SigningKey.RSA);
        }

        @Override
        Message newMessage(SigningKey signer) {
            return Message.digested(signer, digest, "");
        }
    }

    /** RSASSA-PKCS1-v1_5 padding around the bytes given, without a DigestInfo. */
    static final class RawRsa extends SigningEngine {
        /** RFC 8017 section 9.2: 00 01, at least eight ff, 00. */
        private static final int PADDING = 11;

        @Override
        boolean fits(SigningKey candidate) {
            return candidate.isFor(SigningKey.RSA);
        }

        @Override
        Message newMessage(SigningKey signer) throws InvalidKeyException {
            requireKnown(signer, Digest.RAW, "NONEwithRSA");
            int modulus = (((RSAKey) signer).getModulus().bitLength() + 7) / 8;
            return Message.collected(Digest.RAW, modulus - PADDING);
        }
    }

    /** ECDSA, of a digest or of the bytes given as the digest. */
    static final class Ecdsa extends SigningEngine {
        /** Longer than any digest: they are not a digest. The JDK has the same limit. */
        private static final int MAX_RAW = 64;

        private final Digest digest;
        private final boolean p1363;

        /** @param digest null: the bytes given are the digest */
        Ecdsa(Digest digest, boolean p1363) {
            this.digest = digest;
            this.p1363 = p1363;
        }

        @Override
        boolean fits(SigningKey candidate) {
            return candidate.isFor(SigningKey.EC);
        }

        @Override
        Message newMessage(SigningKey signer) throws InvalidKeyException {
            if (digest != null) {
                return Message.digested(signer, digest, "");
            }
            requireKnown(signer, Digest.RAW, "NONEwithECDSA");
            return Message.collected(Digest.RAW, MAX_RAW);
        }

        @Override
        byte[] convert(SigningKey signer, byte[] signature) throws SigningException {
            return p1363 ? EcdsaSignature.toP1363(signature, ((SigningKey.Ec) signer).getParams().getOrder())
                         : signature;
        }
    }

    /** Ed25519 and Ed448, RFC 8032. The toolkit needs all of the data: these algorithms read it twice. */
    static final class Edwards extends SigningEngine {
        private final String curve;

        /** @param curve null: the key decides */
        Edwards(String curve) {
            this.curve = curve;
        }

        @Override
        boolean fits(SigningKey candidate) {
            return candidate instanceof SigningKey.Edwards
                && (curve == null || curve.equals(((SigningKey.Edwards) candidate).curve()));
        }

        @Override
        Message newMessage(SigningKey signer) {
            return Message.collected(Digest.SHA_512.toString(), NativeText.MAX_BYTES);  // the digest does not matter
        }
    }

    /** RSASSA-PSS. */
    static final class Pss extends SigningEngine {
        private final Digest fixed;
        private Digest chosen;     // null: none
        private Digest effective;  // of the message; that of the key's parameters if none is chosen

        /** @param fixed the digest in the name of the algorithm; null if there is none */
        Pss(Digest fixed) {
            this.fixed = fixed;
            chosen = fixed;
        }

        @Override
        boolean fits(SigningKey candidate) {
            return candidate.isFor(SigningKey.RSA) || candidate.isFor(SigningKey.RSASSA_PSS);
        }

        @Override
        Message newMessage(SigningKey signer) throws InvalidKeyException {
            Digest digest = digestFor(signer);
            String name = (digest == null ? Digest.SHA_256 : digest) + Digest.PSS;
            if (!signer.knowsDigest(Digest.PREHASHED + name)) {
                requireKnown(signer, name, "RSASSA-PSS");
            }
            effective = digest;
            return digest == null ? null : Message.digested(signer, digest, Digest.PSS);
        }

        /** Null: neither the caller nor the key has chosen one. */
        private Digest digestFor(SigningKey signer) throws InvalidKeyException {
            AlgorithmParameterSpec restriction = signer.getParams();
            if (restriction == null) {
                return chosen;
            }
            Digest allowed = PssParameters.allowedBy(restriction);
            if (allowed == null) {
                throw new InvalidKeyException("The toolkit does not offer the parameters of the " + signer);
            }
            if (chosen != null && chosen != allowed) {
                throw new InvalidKeyException(
                    "The parameters of the " + signer + " allow " + allowed + " and not " + chosen);
            }
            return allowed;
        }

        @Override
        protected void engineSetParameter(AlgorithmParameterSpec parameters) throws InvalidAlgorithmParameterException {
            Digest digest = PssParameters.digestOf(parameters);
            if (fixed != null && digest != fixed) {
                throw new InvalidAlgorithmParameterException(
                    "This algorithm is RSASSA-PSS with " + fixed + ", not with " + digest);
            }
            if (digest != effective && isUpdated()) {
                throw new InvalidAlgorithmParameterException("Set the parameters before the first update");
            }
            Digest before = chosen;
            chosen = digest;
            try {
                if (digest != effective) {
                    restart();
                }
            } catch (InvalidKeyException e) {
                chosen = before;
                throw new InvalidAlgorithmParameterException(e.getMessage(), e);
            }
        }

        @Override
        protected AlgorithmParameters engineGetParameters() {
            Digest digest = effective == null ? chosen : effective;
            return digest == null ? null : PssParameters.of(digest);
        }
    }

    private static void requireKnown(SigningKey signer, String digestName, String algorithm)
            throws InvalidKeyException {
        if (!signer.knowsDigest(digestName)) {
            throw new InvalidKeyException("The toolkit does not offer " + algorithm);
        }
    }
}
