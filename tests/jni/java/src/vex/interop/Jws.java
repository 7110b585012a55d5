package vex.interop;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.security.PublicKey;
import java.security.Signature;
import java.security.cert.X509Certificate;
import java.security.interfaces.ECPublicKey;
import java.security.interfaces.EdECPublicKey;
import java.security.interfaces.RSAPublicKey;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Base64;
import java.util.List;
import vex.client.SigningProvider;

/**
 * JSON Web Signatures in their compact form (RFC 7515), made as libraries make them, with java.security.Signature. The
 * JDK and PyJWT verify them.
 */
final class Jws {
    private static final String PAYLOAD = "{\"debt\":100}";
    private static final Base64.Encoder BASE64_URL = Base64.getUrlEncoder().withoutPadding();

    /** Prints the payload if the signature is good. */
    private static final String PYTHON = """
        import json, sys, jwt
        token, key, algorithm = sys.argv[1:]
        print(json.dumps(jwt.decode(token, jwt.PyJWK.from_json(key, algorithm).key, algorithms=[algorithm])))
        """;

    private Jws() {}

    static void sign(Signer signer) throws Exception {
        for (String algorithm : algorithms(signer.kind())) {
            String input = encode("{\"alg\":\"" + algorithm + "\",\"x5c\":[" + certificates(signer) + "]}") + "."
                + encode(PAYLOAD);
            // Like libraries, which set the parameters first and let one name the provider of the private key.
            Signature engine = engine(algorithm, signer.ours() ? SigningProvider.NAME : null);
            engine.initSign(signer.key());
            engine.update(input.getBytes(StandardCharsets.US_ASCII));
            String token = input + "." + BASE64_URL.encodeToString(engine.sign());
            Trust.require(signer.withoutRoot(), signer.root());
            verifyWithTheJdk(token, algorithm, signer.certificate());
            verifyWithPython(signer, token, algorithm);
        }
    }

    /** Those of RFC 7518 and RFC 8037 for this kind of key. */
    private static List<String> algorithms(KeyKind kind) {
        return switch (kind) {
            case RSA -> List.of("RS256", "PS256");
            case EC -> List.of("ES256");
            case PSS -> List.of("PS256");
            case ED25519 -> List.of("EdDSA");
        };
    }

    /** @param provider null for any */
    private static Signature engine(String algorithm, String provider) throws Exception {
        String name = switch (algorithm) {
            case "RS256" -> "SHA256withRSA";
            case "ES256" -> "SHA256withECDSAinP1363Format";
            case "EdDSA" -> "Ed25519";
            default -> "RSASSA-PSS";
        };
        Signature engine = provider == null ? Signature.getInstance(name) : Signature.getInstance(name, provider);
        if (name.equals("RSASSA-PSS")) {
            engine.setParameter(new PSSParameterSpec("SHA-256", "MGF1", MGF1ParameterSpec.SHA256, 32, 1));
        }
        return engine;
    }

    private static String encode(String text) {
        return BASE64_URL.encodeToString(text.getBytes(StandardCharsets.UTF_8));
    }

    private static String certificates(Signer signer) throws Exception {
        List<String> encoded = new ArrayList<>();
        for (X509Certificate certificate : signer.withoutRoot()) {
            encoded.add("\"" + Base64.getEncoder().encodeToString(certificate.getEncoded()) + "\"");
        }
        return String.join(",", encoded);
    }

    private static void verifyWithTheJdk(String token, String algorithm, X509Certificate certificate)
            throws Exception {
        String[] parts = token.split("\\.");
        for (String input : List.of(parts[0] + "." + parts[1], parts[0] + "." + encode("{\"debt\":900}"))) {
            Signature verifier = engine(algorithm, null);
            verifier.initVerify(certificate.getPublicKey());
            verifier.update(input.getBytes(StandardCharsets.US_ASCII));
            boolean changed = !token.startsWith(input);
            boolean good = verifier.verify(Base64.getUrlDecoder().decode(parts[2]));
            assertFalse(good == changed, changed ? "changed" : "unchanged");
        }
    }

    private static void verifyWithPython(Signer signer, String token, String algorithm) throws Exception {
        String verified = signer.run("/usr/bin/python3", "-c", PYTHON, token, jwk(signer.certificate().getPublicKey()),
            algorithm).output();
        assertTrue(verified.contains("{\"debt\": 100}"), verified);
    }

    /** The public key in the form of RFC 7517. */
    private static String jwk(PublicKey key) {
        if (key instanceof RSAPublicKey rsa) {
            return json("kty", "RSA", "n", number(rsa.getModulus(), (rsa.getModulus().bitLength() + 7) / 8), "e",
                number(rsa.getPublicExponent(), 3));
        }
        if (key instanceof ECPublicKey ec) {
            return json("kty", "EC", "crv", "P-256", "x", number(ec.getW().getAffineX(), 32), "y",
                number(ec.getW().getAffineY(), 32));
        }
        assertEquals("Ed25519", ((EdECPublicKey) key).getParams().getName());
        byte[] encoded = key.getEncoded();
        return json("kty", "OKP", "crv", "Ed25519", "x",
            BASE64_URL.encodeToString(Arrays.copyOfRange(encoded, encoded.length - 32, encoded.length)));
    }

    private static String json(String... namesAndValues) {
        List<String> members = new ArrayList<>();
        for (int i = 0; i < namesAndValues.length; i += 2) {
            members.add("\"" + namesAndValues[i] + "\":\"" + namesAndValues[i + 1] + "\"");
        }
        return "{" + String.join(",", members) + "}";
    }

    private static String number(BigInteger number, int length) {
        byte[] bytes = new byte[length];
        byte[] shortest = number.toByteArray();
        int used = Math.min(length, shortest.length);
        System.arraycopy(shortest, shortest.length - used, bytes, length - used, used);
        return BASE64_URL.encodeToString(bytes);
    }
}
