import java.nio.charset.StandardCharsets;
import java.util.Base64;
import vex.client.CertificateInfo;
import vex.client.KeyAlgorithm;
import vex.client.SigningClient;
import vex.client.SigningException;

public class SignContract {
    public static void main(String[] args) {
        try (SigningClient client = SigningClient.store("demo:").keyAlgorithm(KeyAlgorithm.RSA).open()) {
            for (CertificateInfo certificate : client.certificates()) {
                System.out.println("Signs as " + certificate.subjectText() + " until " + certificate.notAfter());
            }

            String text = "I owe you 100 euros.";
            byte[] cms = client.signCmsDetached(text);
            System.out.println(Base64.getEncoder().encodeToString(cms));

            // Bytes are signed as they are; text.getBytes makes a signature that depends on no locale.
            byte[] bare = client.signRaw(text.getBytes(StandardCharsets.UTF_8));
            System.out.println(bare.length + " bytes of RSASSA-PKCS1-v1_5");
        } catch (SigningException e) {
            System.err.println("Error " + e.number() + ": " + e.getMessage());
            System.exit(1);
        }
    }
}
