import java.io.ByteArrayInputStream;
import java.nio.charset.StandardCharsets;
import java.security.Signature;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.util.Base64;
import vex.jni.TAVClientJNI;
import vex.jni.VCTKError;

public class FirstSignature {
    public static void main(String[] args) throws Exception {
        TAVClientJNI client = new TAVClientJNI();
        long handle = client.Initialize(null, "demo:");
        if (handle == 0) {
            throw new IllegalStateException(VCTKError.message(client.GetLastError(0)));
        }
        try {
            client.AddFilter(handle, TAVClientJNI.FILTER_KEY_ALGORITHM, "EC");

            String text = "I owe you 100 euros.";
            String p1 = client.P1SignString(handle, text);
            String p7 = client.P7SignString(handle, text, 1, 1);  // detached, with the certificate
            if (p1 == null || p7 == null) {
                throw new IllegalStateException(client.GetLastErrorMessage(handle));
            }

            // The certificate travels in the P7 signature; the P1 signature is verified with its public key.
            X509Certificate certificate = (X509Certificate) CertificateFactory.getInstance("X.509")
                .generateCertificates(new ByteArrayInputStream(Base64.getDecoder().decode(p7)))
                .iterator().next();
            Signature verifier = Signature.getInstance("SHA256withECDSA");
            verifier.initVerify(certificate);
            verifier.update(text.getBytes(StandardCharsets.UTF_8));
            if (!verifier.verify(Base64.getDecoder().decode(p1))) {
                throw new IllegalStateException("The signature does not verify.");
            }
            System.out.println("Signed and verified: " + certificate.getSubjectX500Principal());
        } finally {
            client.Finalize(handle);
        }
    }
}
